"""Limits that reach every child, failures that say how, and commands that end with nqrun."""

import os
import signal
import subprocess

import program

# Writes its own pid, that of a child, that of one in a session of its own, and that of one that was
# handed over to another parent; all of them would run for a minute.
FAMILY = """
note='echo $$ >>pids; exec sleep 60'
sh -c "$note" &
setsid sh -c "$note" &
(setsid sh -c "$note & exit 0" &) &
sh -c "$note"
"""
FAMILY_SIZE = 4

EATER = """
import os, sys, time
children = int(sys.argv[2])
for _ in range(children):
    if os.fork() == 0:
        break
else:
    if children:
        time.sleep(60)
memory = bytearray(int(sys.argv[1]) << 20)
time.sleep(60)
"""


class Timeouts(program.ProgramTest):
    def test_reach_every_child(self):
        self.write("family", FAMILY)
        process = self.start("--timeout", "4", "sh", "family", ":::", "a")
        pids = self.pids_in("pids", FAMILY_SIZE)
        _, err = process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertEqual(process.returncode, 1)
        self.assertIn(b"nqrun: a: timed out after 4.0 s\n", err)
        self.assertEqual([pid for pid in pids if program.is_alive(pid)], [])

    def test_may_be_fractions_of_a_second(self):
        done = self.run_it("--timeout", "0.05", "sleep", ":::", "60")
        self.assertEqual(done.status, 1)
        self.assertIn("60: timed out after 0.050 s", done.err)

    def test_hit_a_command_that_ignores_signals(self):
        done = self.run_it("--timeout", "0.3", "sh", "-c", "trap '' TERM INT HUP; while :; do sleep 1; done", ":::", "a")
        self.assertEqual(done.status, 1)

    def test_end_a_family_that_forks_without_end(self):
        script = "f() { sleep 0.2; f & sleep 0.2; f; }; f"
        done = self.run_it("--timeout", "0.9", "sh", "-c", script, ":::", "a")
        self.assertEqual(done.status, 1)
        self.assertIn("timed out after 0.9", done.err)

    def test_end_a_command_that_writes_all_the_time(self):
        done = self.run_it("--timeout", "0.2", "sh", "-c", "while :; do echo x; echo y >&2; done", ":::", "a")
        self.assertEqual(done.status, 1)
        self.assertIn("a: timed out after 0.200 s", done.err)

    def test_deliver_what_was_printed_before(self):
        done = self.run_it("--timeout", "2", "sh", "-c", "echo begun; echo oops >&2; exec sleep 60", ":::", "a")
        self.assertEqual(done.out, b"begun\n")
        self.assertTrue(done.err.startswith("oops\nnqrun: a: timed out after 2.0 s\n"), done.err)


class Memory(program.ProgramTest):
    def setUp(self):
        super().setUp()
        self.write("eat.py", EATER)

    def test_is_capped(self):
        done = self.run_it("--memory", "100M", "python3", "eat.py", "200", "0", ":::", "a")
        self.assertEqual(done.status, 1)
        self.assertRegex(done.err, r"nqrun: a: used \d+ MB of memory, more than 100 MB\n")

    def test_counts_all_children(self):
        done = self.run_it("--memory", "150M", "--timeout", "30", "python3", "eat.py", "60", "4", ":::", "a")
        self.assertEqual(done.status, 1)
        self.assertIn("more than 150 MB", done.err)

    def test_is_looked_at_while_a_command_writes_all_the_time(self):
        script = "m=bytearray(200<<20)\nwhile True: print('x', flush=True)"
        done = self.run_it("--memory", "100M", "--timeout", "30", "python3", "-c", script, ":::", "a")
        self.assertIn("more than 100 MB", done.err)

    def test_does_not_count_what_children_share_twice(self):
        # 80 MiB that five processes have together.
        script = "import os,time; m=bytearray(80<<20); [os.fork() for _ in range(2)]; time.sleep(1); os._exit(0)"
        done = self.run_it("--memory", "200M", "python3", "-c", script, ":::", "a")
        self.expect(done, 0)


class Failures(program.ProgramTest):
    def test_say_how(self):
        done = self.run_it("-k", "sh", "-c", "echo words of $0 >&2; eval $0", ":::", "exit 3", "kill -SEGV $$", "true")
        self.assertEqual(done.status, 2)
        self.assertRegex(done.err, r"words of exit 3\nnqrun: exit 3: exited with status 3 after \d+\.\d+ s\n")
        self.assertRegex(done.err, r"nqrun: kill -SEGV \$\$: ended by SIGSEGV(, with a core dump)? after")
        self.assertTrue(done.err.endswith("words of true\nnqrun: 1 done, 2 failed\n"), done.err)

    def test_by_sigkill_name_who_may_have_sent_it(self):
        done = self.run_it("sh", "-c", "kill -KILL $$", ":::", "a")
        self.assertRegex(done.err, r"nqrun: a: ended by SIGKILL \(from somebody, or from the system when memory ran out\) after \d+\.\d+ s\n")

    def test_name_a_program_that_cannot_be_started(self):
        self.write("plain", "no program")
        self.write("lost", "#!/no/such/interpreter\n", 0o755)
        self.write("odd", "neither nor\n", 0o755)
        done = self.run_it("-k", "./{}", ":::", "none", "plain", ".", "lost", "odd")
        self.assertEqual(done.status, 5)
        for words in (
            "./none cannot be started: no such program",
            "./plain cannot be started: it is not executable",
            "./. cannot be started: it is a folder",
            "./lost cannot be started: the interpreter that its first line names is missing",
            "./odd cannot be started: it is neither a program nor a script that begins with #!",
        ):
            self.assertIn(words, done.err)

    def test_begin_on_a_line_of_their_own(self):
        done = self.run_it("sh", "-c", "printf oops >&2; exit 1", ":::", "a")
        self.assertIn("oops\nnqrun: a: exited", done.err)

    def test_are_tried_again(self):
        script = "echo . >>tries-$0; [ $(wc -l <tries-$0) = 3 ] && echo $0 done"
        done = self.run_it("--retries", "2", "sh", "-c", script, ":::", "a", "b")
        self.assertEqual(done.status, 0)
        self.assertEqual(sorted(self.lines(done)), ["a done", "b done"])
        self.assertRegex(done.err, r"a: exited with status 1 after .*; attempt 1 of 3, trying again")

    def test_say_once_how_long_it_took_before_they_are_tried_again(self):
        done = self.run_it("--retries", "1", "--timeout", "0.2", "sleep", ":::", "60")
        self.assertIn("nqrun: 60: timed out after 0.200 s; attempt 1 of 2, trying again\n", done.err)

    def test_leave_scripts_that_run_exactly_the_command_again(self):
        items = [b"plain", b"it's", b"a\nb", b"$HOME `x`", b"\xff\xfe", b"-n"]
        script = 'printf "%s|" "$0" "$@" "$PWD"; cat; exit 1'
        done = self.run_it("-q", "-k", "-0", "--keep-failed", "kept", "sh", "-c", script, "x", "{}", stdin=b"\0".join(items))
        self.assertEqual(done.status, len(items))
        scripts = sorted((self.folder / "kept").iterdir())
        self.assertEqual([path.name for path in scripts], [f"{n:06}.sh" for n in range(1, len(items) + 1)])
        again = b"".join(
            subprocess.run([path], cwd="/", capture_output=True, stdin=subprocess.DEVNULL, check=False).stdout for path in scripts
        )
        self.assertEqual(again, done.out)
        for item in items:
            self.assertIn(item, again)

    def test_leave_scripts_with_the_standard_input_of_a_block(self):
        done = self.run_it("-q", "--pipe", "--lines", "2", "--keep-failed", "kept", "sh", "-c", "cat; exit 4", stdin=b"a\nb\nc\n")
        self.assertEqual(done.status, 2)
        again = subprocess.run([self.folder / "kept/000002.sh"], capture_output=True, check=False)
        self.assertEqual((again.returncode, again.stdout), (4, b"c\n"))

    def test_say_in_the_script_what_has_happened(self):
        self.run_it("--keep-failed", "kept", "sh", "-c", "echo my last words >&2; exit 9", ":::", "a\nrm -rf x")
        text = (self.folder / "kept/000001.sh").read_text()
        self.assertIn("# Runs item 1 again: a\\nrm -rf x\n# How it failed: exited with status 9.\n", text)
        self.assertIn("#   my last words\n", text)


class Ends(program.ProgramTest):
    def test_of_a_killed_nqrun_are_those_of_its_commands(self):
        self.write("family", FAMILY)
        process = self.start("-j", "2", "sh", "family", ":::", "a", "b")
        pids = self.pids_in("pids", 2 * FAMILY_SIZE)
        process.kill()
        process.communicate()
        self.expect_gone(pids)

    def test_of_a_killed_worker_are_those_of_its_command_alone(self):
        self.write("family", FAMILY)
        process = self.start("-j", "1", "sh", "-c", "[ $0 = b ] && echo b || exec sh family", ":::", "a", "b")
        pids = self.pids_in("pids", FAMILY_SIZE)
        workers = children_of(process.pid)
        self.assertEqual(len(workers), 1)
        os.kill(workers[0], signal.SIGKILL)
        out, err = process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertEqual((process.returncode, out), (1, b"b\n"), err)
        self.expect_gone(pids)

    def test_of_a_killed_keeper_are_those_of_its_command_alone(self):
        self.write("family", FAMILY)
        process = self.start("-j", "1", "sh", "-c", "[ $0 = b ] && echo b || exec sh family", ":::", "a", "b")
        pids = self.pids_in("pids", FAMILY_SIZE)
        keepers = children_of(children_of(process.pid)[0])
        self.assertEqual(len(keepers), 1)
        os.kill(keepers[0], signal.SIGKILL)
        out, err = process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertEqual((process.returncode, out), (1, b"b\n"), err)
        self.assertIn(b"nqrun: a: lost: the process that watches over the command was ended\n", err)
        self.expect_gone(pids)

    def test_of_a_command_are_those_of_all_that_it_leaves_running(self):
        self.write("family", FAMILY.replace('\nsh -c "$note"\n', "\nuntil [ $(wc -l <pids) = 3 ]; do sleep 0.01; done\n"))
        done = self.run_it("sh", "family", ":::", "a")
        self.assertEqual(done.status, 0)
        pids = [int(pid) for pid in (self.folder / "pids").read_text().split()]
        self.assertEqual([pid for pid in pids if program.is_alive(pid)], [])

    def test_leave_processes_alone_that_the_shell_had_before(self):
        script = f"sleep 60 & echo $! >before; exec {program.NQRUN} --timeout 0.2 sleep ::: 50"
        subprocess.run(["sh", "-c", script], cwd=self.folder, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False, timeout=program.LIMIT_SECONDS)
        (before,) = self.pids_in("before", 1)
        self.assertTrue(program.is_alive(before))
        os.kill(before, signal.SIGKILL)

    def test_leave_no_process_behind(self):
        done = self.run_it("sh", "-c", "echo $$ $PPID $(cut -d' ' -f4 /proc/$PPID/stat)", stdin=b"x\n" * 20)
        pids = {int(word) for line in self.lines(done) for word in line.split()}
        self.assertEqual([pid for pid in pids if program.is_alive(pid)], [])


def children_of(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [int(word) for word in file.read().split()]


if __name__ == "__main__":
    program.main()

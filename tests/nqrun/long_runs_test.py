"""Joblogs, resuming after every kind of interruption, progress, and shards."""

import fcntl
import json
import os
import pty
import random
import re
import select
import signal
import struct
import termios
import time

import program

ITEMS = b"".join(b"item %d\n" % number for number in range(1, 401))
TRACE = 'echo "$0" >>ran; echo "$0"'


class LogTest(program.ProgramTest):
    log = "run.jsonl"

    def entries(self):
        """The lines of the log after its first."""
        lines = (self.folder / self.log).read_text().split("\n")
        self.assertEqual(lines.pop(), "")
        return [json.loads(line) for line in lines[1:]]

    def ran(self):
        path = self.folder / "ran"
        return path.read_text().splitlines() if path.exists() else []


class Joblog(LogTest):
    def test_has_one_line_for_each_attempt(self):
        done = self.run_it("-j1", "-q", "--retries", "1", "--joblog", self.log, "sh", "-c", "echo oops >&2; exit $0", ":::", "0", "5")
        self.assertEqual(done.status, 1)
        first, second, third = self.entries()
        self.assertEqual((first["index"], first["item"], first["outcome"], first["attempt"], first["final"]), (1, "0", "done", 1, True))
        self.assertEqual((second["index"], second["outcome"], second["status"], second["final"]), (2, "exit", 5, False))
        self.assertEqual((third["index"], third["attempt"], third["final"], third["last_words"]), (2, 2, True, "oops"))
        self.assertLess(abs(first["started"] - time.time()), 60)
        self.assertEqual(first["stderr_bytes"], 5)
        self.assertGreater(first["peak_memory"], 100_000)

    def test_names_the_kind_of_each_end(self):
        script = 'case $0 in kill) kill -KILL $$;; slow) sleep 60;; *) exit $0; esac'
        self.run_it("-q", "--timeout", "0.5", "--joblog", self.log, "sh", "-c", script, ":::", "0", "7", "kill", "slow")
        ends = {entry["item"]: (entry["outcome"], entry.get("signal")) for entry in self.entries()}
        self.assertEqual(ends, {"0": ("done", None), "7": ("exit", None), "kill": ("signal", 9), "slow": ("timeout", None)})

    def test_holds_items_of_any_bytes(self):
        items = [b"a\nb", b"\xff\xfe", "żółw".encode()]
        self.run_it("-0", "-k", "--joblog", self.log, "true", stdin=b"\0".join(items))
        self.assertEqual([entry["item"] for entry in self.entries()], ["a\nb", {"hex": "fffe"}, "żółw"])
        done = self.run_it("-0", "--resume", "--joblog", self.log, "true", stdin=b"\0".join(items))
        self.assertIn("3 in the joblog already", done.err)

    def test_may_have_the_columns_of_parallel(self):
        self.run_it("-k", "--joblog", "log", "--joblog-format", "parallel", "echo", ":::", "a b", "c\nd")
        head, first, second = (self.folder / "log").read_text().splitlines()
        self.assertEqual(head, "Seq\tHost\tStarttime\tJobRuntime\tSend\tReceive\tExitval\tSignal\tCommand")
        self.assertEqual([first.split("\t")[n] for n in (0, 1, 5, 6, 7, 8)], ["1", ":", "4", "0", "0", "echo 'a b'"])
        self.assertEqual(second.split("\t")[8], "echo $'c\\nd'")


class Resume(LogTest):
    def resume(self, option="--resume", items=ITEMS, script=TRACE, extra=()):
        return self.run_it("-j2", "-q", *extra, "--joblog", self.log, option, "sh", "-c", script, stdin=items)

    def test_leaves_out_what_is_logged(self):
        self.resume(items=b"item 1\nitem 2\n")
        self.resume(items=b"item 1\nitem 2\nitem 3\n")
        self.assertEqual(sorted(self.ran()), ["item 1", "item 2", "item 3"])

    def test_leaves_out_failures_unless_told_otherwise(self):
        script = 'echo "$0" >>ran; [ -e good ] || [ "$0" = "item 1" ]'
        self.assertEqual(self.resume(items=b"item 1\nitem 2\n", script=script).status, 1)
        self.assertEqual(self.resume(items=b"item 1\nitem 2\n", script=script).status, 0)
        self.assertEqual(len(self.ran()), 2)
        self.write("good", "")
        self.assertEqual(self.resume("--resume-failed", b"item 1\nitem 2\n", script).status, 0)
        self.assertEqual(sorted(self.ran()), ["item 1", "item 2", "item 2"])
        self.assertEqual(self.resume("--resume-failed", b"item 1\nitem 2\n", script).status, 0)
        self.assertEqual(len(self.ran()), 3)

    def test_removes_the_script_of_an_item_that_is_done_now(self):
        script = "[ -e good ]"
        self.resume(items=b"a\n", script=script, extra=("--keep-failed", "kept"))
        self.assertTrue((self.folder / "kept/000001.sh").exists())
        self.write("good", "")
        self.resume("--resume-failed", b"a\n", script, ("--keep-failed", "kept"))
        self.assertFalse((self.folder / "kept/000001.sh").exists())

    def test_accounts_for_every_item_after_kills_at_random_moments(self):
        kills = int(os.environ.get("NQRUN_KILLS", "4"))
        items = self.resume_after_kills(kills, ())
        # An item runs once more only if a kill has come before it was logged, of which there are as
        # many as are on their way at a time. In order, those behind a slow one are not logged either.
        self.assertLessEqual(len(self.ran()), len(items) + kills * 10)

    def test_accounts_for_every_item_in_order_after_kills(self):
        self.resume_after_kills(2, ("-k",))

    # What is logged has been delivered, and never runs again.
    def resume_after_kills(self, kills, extra):
        chance = random.Random(kills)
        words = ["-j2", "-q", *extra, "--joblog", self.log, "--resume", "sh", "-c", TRACE, "::::", "items"]
        items = self.add_items([])
        logged = set()
        delivered = b""
        killed = 0
        while True:
            before = len(self.ran())
            with open(self.folder / "out", "wb") as out:
                process = self.start(*words, stdout=out)
            if killed < kills and self.wait_for_runs(process, before + chance.randrange(150)):
                time.sleep(chance.random() / 500)  # anywhere between two commands
                process.kill()
                process.wait()
            process.wait(program.LIMIT_SECONDS)
            process.stderr.close()
            self.assertIn(process.returncode, (0, -signal.SIGKILL))
            killed += process.returncode != 0
            delivered += (self.folder / "out").read_bytes()
            self.settle()
            again = logged & set(self.ran()[before:])
            self.assertEqual(again, set(), "logged items ran again")
            logged = self.logged_items()
            self.assertEqual(logged - set(delivered.decode().splitlines()), set(), "logged, but not delivered")
            if process.returncode == 0:
                self.assertEqual(logged, set(items))
                if killed == kills:
                    break
                items = self.add_items(items)
        self.assertEqual(set(self.ran()), set(items))
        return items

    def add_items(self, items):
        """Makes the file of items longer, for the kills that are still to come."""
        items = items + [f"item {number}" for number in range(len(items), len(items) + 400)]
        self.write("items", "".join(item + "\n" for item in items))
        return items

    def wait_for_runs(self, process, count):
        """Whether so many commands have run while the program was still there to be killed."""
        end = time.monotonic() + program.LIMIT_SECONDS
        while len(self.ran()) < count and process.poll() is None:
            self.assertLess(time.monotonic(), end, "no command runs")
            time.sleep(0.001)
        return process.poll() is None

    def logged_items(self):
        path = self.folder / self.log
        whole = path.read_text().split("\n")[1:-1] if path.exists() else []
        return {json.loads(line)["item"] for line in whole}

    def settle(self):
        """Waits for the commands of the killed run, which end by themselves in a moment."""
        mine = str(self.folder)

        def is_quiet():
            for name in os.listdir("/proc"):
                try:
                    if name.isdigit() and os.readlink(f"/proc/{name}/cwd") == mine:
                        return False
                except OSError:
                    continue
            return True

        program.wait_until(is_quiet, "the end of all commands")

    def test_is_refused_for_another_command_line(self):
        self.resume(items=b"a\n")
        before = (self.folder / self.log).read_bytes()
        done = self.resume(items=b"a\n", script="touch made")
        self.assertEqual(done.status, 255)
        self.assertIn("is of another command line: sh -c ", done.err)
        self.assertEqual((self.folder / self.log).read_bytes(), before)
        self.assertFalse((self.folder / "made").exists())

    def test_is_refused_for_other_items(self):
        self.resume(items=b"a\nb\n")
        done = self.resume(items=b"a\nc\n")
        self.assertEqual(done.status, 255)
        self.assertIn("is of other items: its item 2 is not c", done.err)
        self.assertEqual(sorted(self.ran()), ["a", "b"])

    def test_is_refused_in_parallels_columns_for_another_command_line(self):
        words = ("--joblog", "log", "--joblog-format", "parallel", "--resume")
        self.run_it("-q", *words, "echo", ":::", "a")
        done = self.run_it("-q", *words, "printf", ":::", "a")
        self.assertEqual((done.status, done.out), (255, b""))
        self.assertIn("is of other items, or of another command: its item 1 is not a", done.err)

    def test_goes_by_blocks(self):
        words = ("-q", "--pipe", "--lines", "100", "--joblog", self.log, "--resume", "sh", "-c", "wc -l >>ran")
        self.run_it(*words, stdin=ITEMS)
        self.run_it(*words, stdin=ITEMS)
        self.assertEqual(self.ran(), ["100"] * 4)
        done = self.run_it(*words, stdin=ITEMS.replace(b"item 1\n", b"item x\n"))
        self.assertEqual(done.status, 255)

    def test_wants_to_be_asked_for(self):
        self.resume(items=b"a\n")
        done = self.run_it("--joblog", self.log, "true", ":::", "a")
        self.assertEqual(done.status, 255)
        self.assertIn("is there already: add --resume", done.err)


class Interrupts(LogTest):
    script = 'echo "$0" >>ran; until [ -e go ]; do sleep 0.01; done; echo "$0"'

    def start_two(self):
        process = self.start("-j2", "--joblog", self.log, "sh", "-c", self.script, ":::", *"123456789")
        program.wait_until(lambda: len(self.ran()) == 2, "two commands")
        return process

    def test_once_finish_what_runs(self):
        process = self.start_two()
        process.send_signal(signal.SIGINT)
        line = process.stderr.readline()
        self.assertIn(b"nothing new is started; waiting for 2 running items (Ctrl-C ends them now)", line)
        self.write("go", "")
        out, err = process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertEqual(process.returncode, -signal.SIGINT, "as a shell wants to be told")
        self.assertEqual(sorted(out.split()), [b"1", b"2"])
        self.assertIn(b"interrupted by SIGINT: 2 done, 0 failed; --resume goes on from run.jsonl", err)
        done = self.run_it("-q", "--joblog", self.log, "--resume", "sh", "-c", self.script, ":::", *"123456789")
        self.assertEqual(done.status, 0)
        self.assertEqual(sorted(self.ran()), list("123456789"))

    def test_twice_end_it_now(self):
        process = self.start_two()
        process.send_signal(signal.SIGINT)
        process.stderr.readline()
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertEqual((process.returncode, out), (-signal.SIGINT, b""))
        self.assertIn(b"interrupted by SIGINT: 0 done", err)
        self.write("go", "")
        done = self.run_it("-q", "--joblog", self.log, "--resume", "sh", "-c", self.script, ":::", *"123456789")
        self.assertEqual(done.status, 0)
        self.assertEqual(sorted(self.ran()), sorted("123456789" + "12"))

    def test_by_sigterm_end_it_now(self):
        process = self.start_two()
        process.terminate()
        process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertEqual(process.returncode, -signal.SIGTERM)

    def test_end_a_run_whose_output_nobody_reads(self):
        process = self.start("head", "-c", "10000000", ":::", "/dev/zero")
        select.select([process.stdout], [], [], program.LIMIT_SECONDS)  # it writes, and is stuck soon
        process.terminate()
        try:
            self.assertEqual(process.wait(program.LIMIT_SECONDS), -signal.SIGTERM)
        finally:
            process.kill()
            process.wait()
        process.stdout.close()
        process.stderr.close()


class Progress(program.ProgramTest):
    @staticmethod
    def all_of(master):
        """What a terminal was shown until its last writer has gone."""
        seen = b""
        while True:
            try:
                part = os.read(master, 65536)
            except OSError:
                break
            if not part:
                break
            seen += part
        os.close(master)
        return seen

    def test_is_a_line_that_fits_the_terminal(self):
        master, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 50, 0, 0))
        process = self.start("-j2", "sleep", ":::", "0.9", "0.9", stderr=terminal)
        os.close(terminal)
        seen = self.all_of(master)
        process.communicate(timeout=program.LIMIT_SECONDS)
        drawn = [line for line in re.split(rb"\r|\x1b\[K", seen) if line.strip()]
        self.assertGreaterEqual(len(drawn), 2, seen)
        for line in drawn:
            self.assertLess(len(line), 50)
        self.assertTrue(any(b"0 done, 0 failed of 2, 2 running" in line for line in drawn), seen)
        self.assertTrue(seen.endswith(b"\r\x1b[K"), "the line is taken away at the end")

    def test_leaves_output_without_a_line_break_at_its_end_on_the_terminal(self):
        master, terminal = pty.openpty()
        script = "[ $0 = 1 ] || sleep 0.7; printf partial"
        process = self.start("-j1", "sh", "-c", script, ":::", "1", "2", stdout=terminal, stderr=terminal)
        os.close(terminal)
        seen = self.all_of(master)
        process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertRegex(seen, rb"partial\r\n\r1 done", "the line of progress stands below it")

    def test_says_nothing_of_a_short_run_in_a_file(self):
        self.expect(self.run_it("true", ":::", "a"), 0, b"", "")


class Shards(program.ProgramTest):
    def shard(self, text, environment=()):
        done = self.run_it("-k", "--shard", text, "echo", "{#}", stdin=ITEMS, env=dict(os.environ, **dict(environment)))
        self.assertEqual(done.status, 0, done.err)
        return [int(line) for line in self.lines(done)]

    def test_have_every_item_exactly_once(self):
        parts = [self.shard(f"{number}/3") for number in (1, 2, 3)]
        self.assertEqual(sorted(sum(parts, [])), list(range(1, 401)))
        self.assertLessEqual(max(map(len, parts)) - min(map(len, parts)), 1)

    def test_of_a_slurm_array_have_every_item_exactly_once(self):
        everything = []
        for task in (2, 5, 8):
            everything += self.shard(
                "auto",
                {
                    "SLURM_ARRAY_TASK_ID": str(task),
                    "SLURM_ARRAY_TASK_MIN": "2",
                    "SLURM_ARRAY_TASK_MAX": "8",
                    "SLURM_ARRAY_TASK_STEP": "3",
                    "SLURM_ARRAY_TASK_COUNT": "3",
                },
            )
        self.assertEqual(sorted(everything), list(range(1, 401)))

    def test_of_an_indexed_job_have_every_item_exactly_once(self):
        everything = sum((self.shard("auto/4", {"JOB_COMPLETION_INDEX": str(n)}) for n in range(4)), [])
        self.assertEqual(sorted(everything), list(range(1, 401)))


if __name__ == "__main__":
    program.main()

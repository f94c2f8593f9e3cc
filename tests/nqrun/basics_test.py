"""What users of xargs and parallel expect."""

import os
import pty
import resource
import subprocess
import unittest

import program


class Items(program.ProgramTest):
    def test_each_line_is_an_item(self):
        done = self.run_it("-k", "echo", "x{}", stdin=b"a b\nc\n")
        self.expect(done, 0, b"xa b\nxc\n", "")

    def test_items_may_stand_on_the_command_line(self):
        done = self.run_it("-k", "echo", ":::", "a", "", "b c")
        self.expect(done, 0, b"a\n\nb c\n", "")

    def test_items_may_stand_in_files(self):
        self.write("one", "a\nb\n")
        self.write("two", "c")
        self.expect(self.run_it("-k", "echo", "::::", "one", "two"), 0, b"a\nb\nc\n", "")

    def test_null_bytes_separate_what_holds_line_breaks(self):
        done = self.run_it("-0", "-k", "echo", stdin=b"a\nb\0c\0")
        self.expect(done, 0, b"a\nb\nc\n", "")

    def test_every_part_of_a_path_has_a_name(self):
        done = self.run_it("echo", "{}", "{.}", "{/}", "{/.}", "{//}", "{#}", ":::", "in/pic.jpg")
        self.expect(done, 0, b"in/pic.jpg in/pic pic.jpg pic in 1\n", "")

    def test_any_byte_reaches_the_command(self):
        item = bytes(range(1, 256))
        done = self.run_it("-0", "printf", "%s", stdin=item)
        self.expect(done, 0, item, "")

    def test_commands_have_no_standard_input(self):
        self.expect(self.run_it("wc", "-c", "/dev/stdin", ":::", "--"), 0, b"0 /dev/stdin\n", "")

    def test_commands_start_with_no_signal_blocked_or_ignored(self):
        done = self.run_it("sed", "-nE", "s/^Sig(Blk|Ign):\\s*//p", ":::", "/proc/self/status")
        self.expect(done, 0, b"0000000000000000\n" * 2, "")

    def test_commands_may_open_as_many_files_as_nqrun_was_given(self):
        done = self.run_it("sh", "-c", "ulimit -Sn", ":::", "a", preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (70, 300)))
        self.expect(done, 0, b"70\n", "")

    def test_a_program_is_searched_for_in_path_and_gets_its_own_name(self):
        self.write("mine", "#!/bin/sh\necho \"$0\" \"$1\"\n", 0o755)
        environment = dict(os.environ, PATH=f"{self.folder}:{os.environ['PATH']}")
        done = self.run_it("mine", ":::", "a", env=environment)
        self.expect(done, 0, f"{self.folder}/mine a\n".encode(), "")


class Output(program.ProgramTest):
    def test_is_never_mixed(self):
        script = "for n in 1 2 3 4 5; do printf %s $0; done; echo; sleep 0.01; echo $0$0$0$0$0"
        done = self.run_it("-j", "4", "sh", "-c", script, ":::", *"abcdefgh")
        lines = self.lines(done)
        self.assertEqual(len(lines), 16)
        for first, second in zip(lines[::2], lines[1::2]):
            self.assertEqual(first, second)
            self.assertEqual(first, first[0] * 5)

    def test_keeps_the_order_of_the_items_on_demand(self):
        done = self.run_it(
            "-k", "-j", "4", "sh", "-c", "[ $0 != 1 ] || sleep 0.3; echo $0; echo e$0 >&2", stdin=b"".join(b"%d\n" % n for n in range(1, 31))
        )
        self.assertEqual(self.lines(done), [str(n) for n in range(1, 31)])
        self.assertEqual(done.err.split(), [f"e{n}" for n in range(1, 31)])

    def test_standard_error_stays_apart(self):
        done = self.run_it("sh", "-c", "echo out; echo err >&2", ":::", "a")
        self.expect(done, 0, b"out\n", "err\n")

    def test_is_kept_whole_when_a_command_opens_its_streams_again(self):
        script = "echo a; echo b >/dev/stdout; echo c; echo d >&2; echo e >/dev/stderr; echo f >&2"
        self.expect(self.run_it("sh", "-c", script, ":::", "x"), 0, b"a\nb\nc\n", "d\ne\nf\n")

    def test_is_whole_after_a_command_that_made_its_streams_non_blocking(self):
        script = """
import os, sys
if sys.argv[1] == "first":
    for stream in (1, 2):
        os.set_blocking(stream, False)
else:
    for stream in (1, 2):
        for _ in range(50):
            assert os.write(stream, bytes(100_000)) == 100_000
"""
        done = self.run_it("-q", "-j1", "python3", "-c", script, ":::", "first", "second")
        self.expect(done, 0, bytes(5_000_000), "\0" * 5_000_000)

    def test_takes_the_place_of_progress_on_a_terminal(self):
        master, terminal = pty.openpty()
        process = self.start("sh", "-c", "until [ -e go ]; do sleep 0.01; done; echo word", ":::", "a", stdout=terminal, stderr=terminal)
        os.close(terminal)
        shown = b""
        while True:
            try:
                shown += os.read(master, 65536)
            except OSError:  # its last writer has gone
                break
            if b"1 running" in shown:
                self.write("go", "")
        process.communicate()
        os.close(master)
        self.assertTrue(shown.endswith(b"\r\x1b[Kword\r\n"), shown)

    def test_has_tags_on_demand(self):
        done = self.run_it("--tag", "-k", "sh", "-c", "echo 1; echo 2; echo 3 >&2", ":::", "a", "b\nc")
        self.expect(done, 0, b"a\t1\na\t2\nb\\nc\t1\nb\\nc\t2\n", "a\t3\nb\\nc\t3\n")

    def test_without_a_line_break_at_its_end_is_left_so(self):
        self.expect(self.run_it("-k", "printf", "%s", ":::", "a", "b"), 0, b"ab", "")

    @unittest.skipIf(b"__asan_init" in program.NQRUN.read_bytes(), "a sanitizer takes memory of its own")
    def test_may_be_far_larger_than_memory_that_is_taken(self):
        # 64 MiB each, under a limit for each process.
        script = "head -c 67108864 /dev/zero | tr '\\0' $0"
        command = ["prlimit", "--data=100000000", program.NQRUN, "-k", "-j", "2", "sh", "-c", script, ":::", "a", "b", "c"]
        with open(self.folder / "out", "wb") as out:
            subprocess.run(command, stdout=out, check=True, timeout=program.LIMIT_SECONDS)
        self.assertEqual((self.folder / "out").stat().st_size, 3 << 26)
        with open(self.folder / "out", "rb") as out:
            for letter in (b"a", b"b", b"c"):
                self.assertEqual(out.read(1 << 26).count(letter), 1 << 26)

    def test_leaves_nothing_in_the_temporary_folder(self):
        temporary = self.folder / "tmp"
        temporary.mkdir()
        environment = dict(os.environ, TMPDIR=str(temporary))
        # What a command finds there while it runs, and what is there afterwards.
        done = self.run_it("-k", "sh", "-c", "echo $0; ls -A tmp", ":::", "a", "b", env=environment)
        self.expect(done, 0, b"a\nb\n", "")
        self.assertEqual(list(temporary.iterdir()), [])

    def test_of_a_dry_run_is_the_commands_for_a_shell(self):
        done = self.run_it("--dry-run", "touch", "made {}", ":::", "it's", "b")
        self.expect(done, 0, b"touch 'made it'\\''s'\ntouch 'made b'\n", "")
        self.assertEqual(list(self.folder.iterdir()), [])


class Shell(program.ProgramTest):
    def test_there_is_none_unless_asked_for(self):
        done = self.run_it("-k", "echo", "{}", "|", "wc", ":::", "$(touch made)", "`x`;'")
        self.expect(done, 0, b"$(touch made) | wc\n`x`;' | wc\n", "")

    def test_reads_the_command_and_not_the_items(self):
        done = self.run_it("--shell", "echo {} | tr a-z A-Z", ":::", "it's $HOME; ls")
        self.expect(done, 0, b"IT'S $HOME; LS\n", "")


class Pipe(program.ProgramTest):
    content = b"".join(b"%d\n" % n for n in range(20_000))

    def test_hands_over_every_line_once(self):
        done = self.run_it("--pipe", "--block", "10K", "-k", "cat", stdin=self.content)
        self.expect(done, 0, self.content, "")

    def test_cuts_by_lines(self):
        done = self.run_it("--pipe", "--lines", "8000", "-k", "wc", "-l", stdin=self.content)
        self.expect(done, 0, b"8000\n8000\n4000\n", "")

    def test_does_not_mind_a_command_that_does_not_read(self):
        done = self.run_it("--pipe", "--block", "1M", "true", stdin=self.content * 20)
        self.expect(done, 0, b"", "")

    def test_keeps_braces_of_the_command(self):
        done = self.run_it("--pipe", "awk", "{n++} END {print n, \"{}\", {#}}", stdin=b"a\nb\n")
        self.expect(done, 0, b"2 {} 1\n", "")


class Statuses(program.ProgramTest):
    def test_are_the_number_of_failures(self):
        done = self.run_it("-q", "sh", "-c", "exit $0", ":::", "0", "1", "0", "7")
        self.expect(done, 2, b"", "")

    def test_stop_at_101(self):
        self.assertEqual(self.run_it("-q", "false", stdin=b"x\n" * 100).status, 100)
        self.assertEqual(self.run_it("-q", "false", stdin=b"x\n" * 101).status, 101)
        self.assertEqual(self.run_it("-q", "false", stdin=b"x\n" * 150).status, 101)


class Halt(program.ProgramTest):
    def test_soon_waits_for_what_runs(self):
        script = "[ $0 != fail ] || exit 1; echo begin $0; sleep 0.3; echo end $0"
        done = self.run_it("-j2", "--halt", "soon,fail=1", "sh", "-c", script, ":::", "one", "fail", *["more"] * 50)
        self.assertEqual(done.status, 1)
        self.assertIn("end one", self.lines(done))
        self.assertLess(len(self.lines(done)), 20)
        self.assertEqual(done.out.count(b"begin"), done.out.count(b"end"))
        self.assertIn("--halt: nothing new is started", done.err)

    def test_soon_starts_nothing_after_the_last_end_that_counts(self):
        done = self.run_it("-j1", "--halt", "soon,fail=2", "sh", "-c", "echo $0; exit 1", ":::", *"1234")
        self.assertEqual((done.status, done.out), (2, b"1\n2\n"))
        self.assertIn("nqrun: ended by --halt: 0 done, 2 failed\n", done.err)

    def test_now_ends_what_runs(self):
        script = "[ $0 != fail ] || { until [ -s pids ]; do sleep 0.01; done; exit 1; }; echo $$ >>pids; sleep 60"
        done = self.run_it("-j2", "--halt", "now,fail=1", "sh", "-c", script, ":::", "long", "fail", "never")
        self.assertEqual(done.status, 1)
        pids = (self.folder / "pids").read_text().split()
        self.expect_gone([int(pid) for pid in pids])

    def test_may_wait_for_the_first_success(self):
        done = self.run_it("-q", "-j1", "--halt", "now,success=1", "sh", "-c", "echo $0 >>ran; [ $0 = 3 ]", ":::", *"123456789")
        self.assertEqual(done.status, 2)
        self.assertEqual((self.folder / "ran").read_text().split(), ["1", "2", "3"])


if __name__ == "__main__":
    program.main()

"""What goes wrong before and around the commands: a clear message, the right status, nothing half written."""

import os
import pty
import resource
import signal
import subprocess
import termios

import program


def files_of_at_most(size):
    """For a process that is about to start."""

    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    return limit


class BadInput(program.ProgramTest):
    def expect_refusal(self, done, words):
        self.assertEqual((done.status, done.out), (255, b""), done.err)
        self.assertTrue(done.err.startswith("nqrun: "), done.err)
        self.assertEqual(done.err.count("\n"), 1, done.err)
        self.assertIn(words, done.err)

    def test_an_unknown_option(self):
        self.expect_refusal(self.run_it("--fast", "echo", ":::", "a"), "unknown option --fast; see nqrun --help")

    def test_no_command(self):
        self.expect_refusal(self.run_it(":::", "a"), "there is no command")

    def test_items_that_cannot_be_read(self):
        self.expect_refusal(self.run_it("echo", "::::", "none"), "items cannot be read from none: No such file or directory")
        self.expect_refusal(self.run_it("echo", "::::", "."), "items cannot be read from .: Is a directory")
        self.write("list", "a\n")
        for second in ("none", "."):
            self.expect_refusal(self.run_it("--joblog", "log", "echo", "::::", "list", second), f"items cannot be read from {second}: ")
        self.assertFalse((self.folder / "log").exists(), "nothing was begun")
        done = self.run_it("echo", preexec_fn=lambda: os.close(0))
        self.expect_refusal(done, "items cannot be read from standard input: Bad file descriptor")

    def test_a_command_that_is_missing(self):
        self.expect_refusal(self.run_it("no-such-program", ":::", "a"), "no-such-program cannot be started: no such program in PATH")

    def test_a_command_that_is_a_folder(self):
        self.expect_refusal(self.run_it("./.", ":::", "a"), "./. cannot be started: it is a folder")

    def test_a_refused_run_makes_no_files(self):
        self.run_it("--joblog", "log", "--keep-failed", "kept", "no-such-program", ":::", "a")
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_no_items(self):
        for done in (self.run_it("touch", "made", stdin=b""), self.run_it("touch", "made", stdin=b"\n\n"), self.run_it("touch", "made", ":::")):
            self.expect(done, 0, b"", "nqrun: there are no items\n")
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_an_item_with_a_line_break(self):
        done = self.run_it("sh", "-c", "exit 3", ":::", "a\nb")
        self.assertEqual(done.status, 1)
        self.assertIn("nqrun: a\\nb: exited with status 3", done.err)

    def test_an_item_that_is_no_text(self):
        done = self.run_it("-0", "sh", "-c", "printf %s \"$0\"; exit 3", stdin=b"\xff\x1b[2J")
        self.assertEqual((done.status, done.out), (1, b"\xff\x1b[2J"))
        self.assertIn("nqrun: \\xff\\x1b[2J: exited with status 3", done.err)

    def test_an_item_with_a_null_byte(self):
        # What find -print0 writes, and somebody forgets -0.
        for options in ((), ("--shell",), ("--dry-run",)):
            done = self.run_it(*options, "touch", stdin=b"a\0b\0")
            self.expect_refusal(done, "item 1 holds a null byte, which no argument can; with -0, null bytes end items")
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_a_hundred_thousand_arguments(self):
        items = [str(number) for number in range(100_000)]
        done = self.run_it("--dry-run", "echo", ":::", *items)
        self.assertEqual(done.status, 0)
        self.assertEqual(done.out.count(b"\n"), 100_000)
        self.assertTrue(done.out.endswith(b"echo 99999\n"))

    def test_a_command_with_a_hundred_thousand_arguments(self):
        words = ["w"] * 100_000
        done = self.run_it("sh", "-c", "echo $#", *words, "{}", ":::", "a")
        self.expect(done, 0, b"100000\n")

    def test_a_command_line_that_is_too_long_for_the_system(self):
        done = self.run_it("-0", "true", stdin=b"x" * 300_000)
        self.assertEqual(done.status, 1)
        self.assertIn("true cannot be started: its arguments and environment are too long for the system", done.err)

    def test_a_reader_of_the_output_that_has_gone(self):
        script = f"{program.NQRUN} -k echo :::: /dev/stdin | head -n 2; echo ${{PIPESTATUS[0]}}"
        done = subprocess.run(
            ["bash", "-c", script], input=b"".join(b"%d\n" % n for n in range(20_000)), capture_output=True, check=False, timeout=program.LIMIT_SECONDS
        )
        self.assertEqual((done.stdout, done.stderr), (b"0\n1\n141\n", b""))

    def test_a_closed_standard_output(self):
        done = self.run_it("echo", ":::", "a", stdout=None, preexec_fn=lambda: os.close(1))
        self.assertEqual(done.status, 255)
        self.assertIn("standard output cannot be written: Bad file descriptor", done.err)

    def test_a_terminal_that_somebody_has_stopped(self):
        master, terminal = pty.openpty()
        process = self.start("sleep", ":::", "60", stderr=terminal)
        os.read(master, 1)  # progress is shown
        termios.tcflow(terminal, termios.TCOOFF)  # as Ctrl-S does
        os.close(terminal)
        process.terminate()
        try:
            self.assertEqual(process.wait(program.LIMIT_SECONDS), -signal.SIGTERM)
        finally:
            process.kill()
            process.communicate()
            os.close(master)

    def test_a_full_disk_below_the_output(self):
        with open("/dev/full", "wb") as full:
            done = self.run_it("--joblog", "log", "echo", ":::", "a", stdout=full)
        self.assertEqual((done.status, done.err), (255, "nqrun: standard output cannot be written: No space left on device\n"))
        self.assertEqual((self.folder / "log").read_text().count("\n"), 1, "what is not delivered is not logged")

    def test_a_full_disk_below_the_help(self):
        with open("/dev/full", "wb") as full:
            done = self.run_it("--help", stdout=full)
        self.assertEqual((done.status, done.err), (255, "nqrun: standard output cannot be written: No space left on device\n"))

    def test_a_full_disk_below_the_joblog(self):
        # A limit on the size of files does what a full disk does.
        done = self.run_it("-j1", "-q", "--joblog", "log", "true", stdin=b"a\n" * 100, preexec_fn=files_of_at_most(1500))
        self.assertEqual(done.status, 255)
        self.assertIn("the joblog log cannot be written: File too large", done.err)
        text = (self.folder / "log").read_text()
        self.assertTrue(text.endswith("}\n"), "no torn line is left")
        rest = self.run_it("-q", "--joblog", "log", "--resume", "true", stdin=b"a\n" * 100)
        self.expect(rest, 0)
        self.assertEqual((self.folder / "log").read_text().count("\n"), 101)

    def test_a_full_disk_below_the_files_that_show_a_run(self):
        done = self.run_it("--trace", "trace", "--timeline", "picture", "true", stdin=b"a\n" * 100, preexec_fn=files_of_at_most(3000))
        self.assertEqual((done.status, done.out), (0, b""), "what the items came to is another matter")
        self.assertRegex(done.err, r"^nqrun: The \w+ cannot be written: .*/(trace|picture): File too large\n$")
        self.assertFalse((self.folder / "picture").exists())
        self.assertRegex((self.folder / "trace").read_text(), r"^(\[\n(\{.*\},\n)*)?$")

    def test_a_full_disk_below_what_a_command_prints(self):
        script = "head -c 1000000 /dev/zero; echo done >made"
        done = self.run_it("sh", "-c", script, ":::", "a", preexec_fn=files_of_at_most(100_000))
        self.assertEqual((done.status, len(done.out)), (1, 100_000))
        self.assertIn("nqrun: a: lost: what it has printed could not be kept: File too large\n", done.err)
        self.assertTrue((self.folder / "made").exists(), "the command itself was not disturbed")

    def test_folders_that_cannot_be_written_to(self):
        self.write("file", "")
        for option in ("--joblog", "--keep-failed", "--metrics", "--trace", "--timeline", "--status"):
            done = self.run_it(option, "file/x", "touch", "made", ":::", "a")
            self.expect_refusal(done, "file/x")
        environment = dict(os.environ, TMPDIR="/no/such/folder")
        self.expect_refusal(self.run_it("touch", "made", ":::", "a", env=environment), "no temporary file can be made in /no/such/folder")
        self.assertFalse((self.folder / "made").exists())

    def test_a_read_only_folder(self):
        # Root writes everywhere but where nothing can be made.
        for option in ("--joblog", "--keep-failed"):
            done = self.run_it(option, "/proc/x", "touch", "made", ":::", "a")
            self.expect_refusal(done, "/proc/x")


if __name__ == "__main__":
    program.main()

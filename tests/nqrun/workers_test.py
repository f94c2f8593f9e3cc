"""Items as jobs for a worker program of the library, and the files that show a run."""

import json
import os
import pathlib
import pty
import re
import subprocess
import xml.dom.minidom

import program

WORKER = os.environ["UPPER_WORKER"]


class Workers(program.ProgramTest):
    def test_give_a_line_for_each_item(self):
        done = self.run_it("--worker", WORKER, "-k", ":::", "a", "b c")
        self.expect(done, 0, b"A\nB C\n", "")

    def test_keep_order_over_thousands_of_items(self):
        items = [f"item {n}" for n in range(3000)]
        done = self.run_it("--worker", WORKER, "-k", "-j3", stdin="\n".join(items).encode())
        self.assertEqual(self.lines(done), [item.upper() for item in items])

    def test_give_files_on_demand(self):
        done = self.run_it("--worker", WORKER, "--results", "out/deep", ":::", "a", "b")
        self.expect(done, 0, b"", "")
        files = {path.name: path.read_bytes() for path in (self.folder / "out/deep").iterdir()}
        self.assertEqual(files, {"000001": b"A", "000002": b"B"})

    def test_fail_as_their_jobs_do(self):
        done = self.run_it("--worker", WORKER, "-j1", "--timeout", "3", "--joblog", "log", ":::", "throw", "crash", "hang", "fine")
        self.assertEqual((done.status, done.out), (3, b"FINE\n"))
        self.assertIn("I do not like it", done.err)
        self.assertRegex(done.err, r"nqrun: crash: the worker was ended by SIGABRT .*; run it again under a debugger\n")
        outcomes = [json.loads(line)["outcome"] for line in (self.folder / "log").read_text().splitlines()[1:]]
        self.assertEqual(sorted(outcomes), ["done", "exception", "signal", "timeout"])

    def test_fail_for_the_reason_that_they_report(self):
        done = self.run_it("--worker", WORKER, "--joblog", "log", ":::", "report")
        self.assertRegex(done.err, r'^nqrun: report: the worker reports exit status 3 after .*: "its program left"\n')
        entry = json.loads((self.folder / "log").read_text().splitlines()[1])
        self.assertEqual((entry["outcome"], entry["status"]), ("exit", 3))

    def test_leave_scripts_that_run_the_job_again(self):
        self.run_it("-q", "--worker", WORKER, "--keep-failed", "kept", ":::", "throw")
        again = subprocess.run([self.folder / "kept/000001.sh"], capture_output=True, check=False)
        self.assertEqual(again.returncode, 1)
        self.assertIn(b"I do not like it", again.stderr)

    def test_that_are_missing_are_refused(self):
        done = self.run_it("--worker", "none", ":::", "a")
        problem = f"The worker program {self.folder}/none cannot be used: No such file or directory"
        advice = "give its path; a name alone is looked for in the current folder, not in PATH"
        self.expect(done, 255, b"", f"nqrun: {problem}; {advice}\n")

    def test_that_cannot_work_are_one_error(self):
        done = self.run_it("--worker", "/bin/false", ":::", *["a"] * 20)
        self.assertEqual((done.status, done.out), (255, b""))
        self.assertTrue(done.err.startswith("nqrun: no worker process can be started: "), done.err)
        self.assertEqual(done.err.count("\n"), 1)


class Files(program.ProgramTest):
    def test_show_the_run(self):
        done = self.run_it(
            "-q", "--metrics", "m.prom", "--trace", "t.json", "--timeline", "t.svg", "--status", "s.json", "sh", "-c", "exit $0", ":::", "0", "0", "1"
        )
        self.assertEqual(done.status, 1)
        self.assertRegex((self.folder / "m.prom").read_text(), r"nq_[a-z_]+\{")
        picture = xml.dom.minidom.parse(str(self.folder / "t.svg"))
        self.assertEqual(picture.documentElement.tagName, "svg")
        trace = json.loads((self.folder / "t.json").read_text())
        events = trace["traceEvents"] if isinstance(trace, dict) else trace
        self.assertIn("1", [event.get("name") for event in events], "an item's name is that of its span")
        shown = self.run_it("status", "s.json")
        self.assertRegex(shown.out.decode(), r"^sh \(pid \d+\): ended .* ago\n2 done, 1 failed, 0 running, 0 waiting")


class Reasons(program.ProgramTest):
    """How commands have failed, in each of the files that show a run."""

    EATER = 'exec python3 -c "m=bytearray(200<<20); import time; time.sleep(60)"'

    def setUp(self):
        super().setUp()
        files = ("--metrics", "m.prom", "--trace", "t.json", "--timeline", "t.svg", "--status", "s.json")
        failing = {"exited": "exit 3", "crashed": "kill -SEGV $$", "memory_cap": self.EATER}
        self.items = {"done": "true", **failing}
        done = self.run_it("-q", "--memory", "100M", *files, "sh", "-c", ":::", *self.items.values())
        self.assertEqual(done.status, len(failing), done.err)

    def text(self, name):
        return (self.folder / name).read_text()

    def test_are_in_the_metrics(self):
        jobs = re.findall(r'jobs_total\{.*reason="(\w+)"\} 1\n', self.text("m.prom"))
        self.assertEqual(sorted(jobs), sorted(self.items))

    def test_are_no_restarts_of_workers(self):
        restarts = re.findall(r"worker_restarts_total\{.*\} (\d+)\n", self.text("m.prom"))
        self.assertEqual(set(restarts), {"0"})

    def test_are_in_the_trace(self):
        attempts = [event for event in json.loads(self.text("t.json")) if event.get("cat") == "attempt"]
        self.assertEqual({event["args"]["outcome"]: event["name"] for event in attempts}, self.items)

    def test_are_in_the_status(self):
        reasons = json.loads(self.text("s.json"))["reasons"]
        self.assertEqual({reason: count for reason, count in reasons.items() if count}, dict.fromkeys(self.items, 1))

    def test_are_in_the_picture(self):
        legend = re.findall(r">(done|exited|crashed|memory cap) 1<", self.text("t.svg"))
        self.assertEqual(sorted(legend), sorted(reason.replace("_", " ") for reason in self.items))

    def test_tell_a_time_out(self):
        self.run_it("-q", "--timeout", "0.2", "--metrics", "late.prom", "sleep", ":::", "60")
        self.assertIn('reason="timeout"} 1\n', self.text("late.prom"))

    def test_of_a_command_that_cannot_be_started_are_exceptions(self):
        self.run_it("-q", "--metrics", "none.prom", "./{}", ":::", "none")
        self.assertIn('reason="exception"} 1\n', self.text("none.prom"))


class Retries(program.ProgramTest):
    """An item that is tried again is one job in the files that show a run."""

    def setUp(self):
        super().setUp()
        files = ("--metrics", "m.prom", "--trace", "t.json", "--status", "s.json")
        script = 'echo . >>"tries-$0"; [ $(wc -l <"tries-$0") = "$0" ]'
        done = self.run_it("-q", "--retries", "2", *files, "sh", "-c", script, ":::", "1", "3", "never")
        self.assertEqual(done.status, 1, done.err)

    def test_are_items_in_the_status(self):
        shown = self.run_it("status", "s.json").out.decode()
        self.assertIn("\n2 done, 1 failed, 0 running, 0 waiting", shown)

    def test_are_items_in_the_metrics(self):
        text = (self.folder / "m.prom").read_text()
        self.assertRegex(text, r"jobs_submitted_total\{.*\} 3\n")
        self.assertRegex(text, r"attempts_retried_total\{.*\} 4\n")
        self.assertRegex(text, r'reason="exited"\} 1\n')

    def test_are_attempts_in_the_trace(self):
        attempts = [event["args"] for event in json.loads((self.folder / "t.json").read_text()) if event.get("cat") == "attempt"]
        self.assertEqual(sorted((each["attempt"], each["last"]) for each in attempts), [(1, 0), (1, 0), (1, 1), (2, 0), (2, 0), (3, 1), (3, 1)])


class Status(program.ProgramTest):
    def start_one(self):
        script = "echo $$ >pids; until [ -e go ]; do sleep 0.05; done"
        process = self.start("-j1", "--status", "s.json", "--shell", script + " # {}", ":::", "my item")
        self.pids_in("pids", 1)
        return process

    def test_shows_what_runs(self):
        process = self.start_one()

        def seen():
            done = self.run_it("status", "s.json") if (self.folder / "s.json").exists() else None
            return done if done and "my item" in done.out.decode() else None

        text = program.wait_until(seen, "the item in the status").out.decode()
        self.assertRegex(text, rf"^.*\(pid {process.pid}\): runs for ")
        self.assertRegex(text, r"\n0 done, 0 failed, 1 running, 0 waiting")
        self.assertRegex(text, r"\n +1 +\d+ +[0-9.]+ s +[0-9.]+ MB  my item\n")
        self.write("go", "")
        process.communicate(timeout=program.LIMIT_SECONDS)

    def test_counts_the_memory_of_the_command(self):
        script = "import os, time; m = bytearray(80 << 20); open('big', 'w'); [time.sleep(0.05) for _ in iter(lambda: os.path.exists('go'), True)]"
        process = self.start("--status", "s.json", "python3", "-c", script, ":::", "a")
        program.wait_until((self.folder / "big").exists, "the memory")
        program.wait_until((self.folder / "s.json").exists, "the status file")
        text = program.wait_until(lambda: re.search(r"s +(\d+) MB  a\n", self.run_it("status", "s.json").out.decode()), "the command in the status")
        self.assertGreaterEqual(int(text[1]), 80)
        self.write("go", "")
        process.communicate(timeout=program.LIMIT_SECONDS)

    def test_is_shown_in_place_on_a_terminal_until_the_run_has_ended(self):
        process = self.start_one()
        program.wait_until((self.folder / "s.json").exists, "the status file")
        master, terminal = pty.openpty()
        viewer = self.start("status", "s.json", stdout=terminal, stderr=terminal)
        os.close(terminal)
        shown = b""
        while True:
            try:
                shown += os.read(master, 65536)
            except OSError:  # the viewer has ended
                break
            if b"my item" in shown and shown.count(b"1 running") >= 2:
                self.write("go", "")
        os.close(master)
        self.assertEqual(viewer.wait(program.LIMIT_SECONDS), 0)
        process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertRegex(shown, rb"1 running[^\n]*\n[^\n]*\n[^\n]*my item\x1b\[K\r\n\x1b\[J\x1b\[4A", "the next picture begins in the same line")
        self.assertRegex(shown, rb": ended [^\n]*\n1 done, 0 failed, 0 running, 0 waiting\x1b\[K\r\n\x1b\[J$")

    def test_says_that_a_run_was_killed(self):
        process = self.start_one()
        program.wait_until((self.folder / "s.json").exists, "the status file")
        process.kill()
        process.communicate()
        self.assertIn(b"was killed; last heard of", self.run_it("status", "s.json").out)

    def test_refuses_what_is_no_status(self):
        self.write("text", "hello")
        for name in ("text", "none"):
            done = self.run_it("status", name)
            self.assertEqual((done.status, done.out), (255, b""))
            self.assertIn(name, done.err)
        self.assertEqual(self.run_it("status").status, 255)


class Manual(program.ProgramTest):
    source = pathlib.Path(os.environ["SOURCE"])

    def options(self):
        done = self.run_it("--help")
        self.assertEqual((done.status, done.err), (0, ""))
        return set(re.findall(r"(?<![\w-])(--[a-z-]+|-[a-z0-9])(?![\w-])", done.out.decode()))

    def test_describes_every_option_of_the_help_and_no_other(self):
        page = (self.source / "tools/nqrun/nqrun.1").read_text().replace("\\-", "-")
        heads = re.findall(r"\.TP\n(\.B.*)", page)
        described = set(re.findall(r"(?<![\w-])(--[a-z-]+|-[a-z0-9])(?![\w-])", "\n".join(heads)))
        self.assertEqual(described, self.options())

    def test_is_completed_by_bash(self):
        text = (self.source / "tools/nqrun/completion/nqrun").read_text()
        (words,) = re.findall(r"compgen -W '(-j [^']*)'", text)
        self.assertEqual(set(words.split()), self.options())

    def complete(self, *words):
        script = '. "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _nqrun 2>/dev/null; printf "%s\\n" "${COMPREPLY[@]}"'
        path = self.source / "tools/nqrun/completion/nqrun"
        done = subprocess.run(["bash", "-c", script, path, "nqrun", *words], cwd=self.folder, capture_output=True, check=False)
        return done.stdout.decode().split()

    def test_completion_knows_options_values_and_commands(self):
        self.write("run.jsonl", "")
        self.assertEqual(self.complete("--keep-"), ["--keep-order", "--keep-failed"])
        self.assertEqual(self.complete("--joblog-format", ""), ["json", "parallel"])
        self.assertEqual(self.complete("-j", "2", "--joblog", "run"), ["run.jsonl"])
        self.assertEqual(self.complete("status", "run"), ["run.jsonl"])
        self.assertIn("true", self.complete("-j", "2", "tru"))

    def test_page_has_no_warnings(self):
        done = subprocess.run(
            ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", self.source / "tools/nqrun/nqrun.1"], capture_output=True, check=False
        )
        self.assertEqual((done.returncode, done.stderr), (0, b""))


if __name__ == "__main__":
    program.main()

"""Holds the table of docs/nqrun.md against what xargs, GNU parallel and nqrun really do."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import time
import unittest

import program

PAGE = pathlib.Path(os.environ["SOURCE"]) / "docs/nqrun.md"
NAMES = ("xargs", "parallel", "nqrun")


def table():
    """The rows of the page: what is compared, and a cell for each program."""
    text = PAGE.read_text()
    (rows,) = re.findall(r"<!-- compared by \S+ -->\n\|.*\n\|.*\n((?:\|.*\n)+)", text)
    cells = [[cell.strip() for cell in row.strip().strip("|").split(" | ")] for row in rows.splitlines()]
    return {cell[0]: tuple(cell[1:]) for cell in cells}


@unittest.skipUnless(shutil.which("parallel"), "GNU parallel is not installed")
class Comparison(program.ProgramTest):
    def launch(self, name, words, items="", options=(), **more):
        """Starts one of the three. For parallel, whose command is a piece of shell, words are quoted."""
        if name == "xargs":
            command = ["xargs", "-n1", *options, *words]
        elif name == "parallel":
            command = ["parallel", "--will-cite", "-q", *options, *words]
        else:
            command = [str(program.NQRUN), *options, *words]
        environment = dict(os.environ, PARALLEL_HOME=str(self.folder / "parallel"), HOME=str(self.folder))
        self.write("items", items)
        with open(self.folder / "items", "rb") as stdin:
            return subprocess.Popen(
                command, stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=self.folder, env=environment, text=True, **more
            )

    def outcome(self, name, words, items="", options=(), **more):
        process = self.launch(name, words, items, options, **more)
        out, err = process.communicate(timeout=program.LIMIT_SECONDS)
        return process.returncode, out, err

    def row_an_item_with_a_quote_in_it(self, name):
        status, out, _ = self.outcome(name, ["printf", "%s."], "it's\n")
        return "one argument" if (status, out) == (0, "it's.") else "refused" if status != 0 and not out else out

    def row_an_item_with_a_blank_in_it(self, name):
        out = self.outcome(name, ["printf", "%s."], "a b\n")[1]
        return {"a b.": "one argument", "a.b.": "two arguments"}[out]

    def row_home_in_the_command(self, name):
        command = {"parallel": ["parallel", "--will-cite", "echo", "$HOME"], "xargs": ["xargs", "echo", "$HOME"]}
        words = command.get(name, [program.NQRUN, "echo", "$HOME"])
        environment = dict(os.environ, PARALLEL_HOME=str(self.folder / "parallel"))
        out = subprocess.run(words, input="x\n", capture_output=True, text=True, env=environment, check=True).stdout
        return "as it stands" if out == "$HOME x\n" else "replaced by a shell"

    def both_at_a_time(self, name, options=()):
        # The first to begin ends last, and each prints its beginning and its end.
        script = 'echo $0; touch is-$0; [ $0 != a ] || until [ -e is-b ]; do sleep 0.01; done; sleep 0.1; [ $0 != a ] || sleep 0.2; echo $0'
        jobs = "-P2" if name == "xargs" else "-j2"
        for path in self.folder.glob("is-*"):
            path.unlink()
        return self.outcome(name, ["sh", "-c", script], "a\nb\n", [jobs, *options])[1].split()

    def row_the_output_of_two_commands_at_a_time(self, name):
        out = self.both_at_a_time(name)
        return "each in one piece" if out[0] == out[1] else "mixed"

    def row_the_order_of_the_items(self, name):
        if name == "xargs":
            return "lost" if self.both_at_a_time(name) != ["a", "a", "b", "b"] else "kept"
        return "`-k` keeps it" if self.both_at_a_time(name, ["-k"]) == ["a", "a", "b", "b"] else "lost"

    def row_the_exit_status_when_two_fail(self, name):
        return str(self.outcome(name, ["sh", "-c", "exit $0"], "1\n0\n3\n")[0])

    def said(self, name, script):
        status, out, err = self.outcome(name, ["sh", "-c", script], "a\nb\nc\n", ["-P1" if name == "xargs" else "-j1"])
        self.assertNotEqual(status, 0)
        if out.count("ran") < 3:
            return "the run ends"
        return "the item and how" if re.search(r"\ba: (exited with status|ended by SIG)", err) else "nothing is said" if not err else err

    def row_a_command_that_fails(self, name):
        return self.said(name, "echo ran; exit 3")

    def row_a_command_that_crashes(self, name):
        return self.said(name, "echo ran; kill -SEGV $$")

    def time_out(self, name):
        """Whether the command and its child live on after the time-out of the command."""
        if self.refuses(name, ["--timeout", "0.3"]):
            return None
        script = "setsid sh -c 'echo $$ >child; exec sleep 60' >/dev/null 2>&1 & until [ -s child ]; do sleep 0.01; done; echo $$ >parent; exec sleep 60"
        for path in ("child", "parent"):
            (self.folder / path).unlink(missing_ok=True)
        self.outcome(name, ["sh", "-c", script], "a\n", ["--timeout", "1"])
        (child,) = self.pids_in("child", 1)
        (parent,) = self.pids_in("parent", 1)
        lives = program.is_alive(parent), program.is_alive(child)
        for pid in (parent, child):
            if program.is_alive(pid):
                os.kill(pid, signal.SIGKILL)
        return lives

    def refuses(self, name, options):
        err = self.outcome(name, ["true"], "a\n", options)[2]
        return re.search("unknown option|unrecognized option", err, re.IGNORECASE) is not None

    def row_a_time_out(self, name):
        lives = self.lives_after_time_out[name] = self.time_out(name)
        return "there is none" if lives is None else "does not end it" if lives[0] else "ends the command"

    def row_its_child_in_a_session_of_its_own(self, name):
        lives = self.lives_after_time_out[name]  # of the row before
        return "there is none" if lives is None else "lives on" if lives[1] else "ends as well"

    def row_a_cap_on_the_memory_of_a_command(self, name):
        if self.refuses(name, ["--memory", "100M"]):
            return "there is none"
        script = "m=bytearray(300<<20); import time; time.sleep(60)"
        err = self.outcome(name, ["python3", "-c", script], "a\n", ["--memory", "100M"])[2]
        return "ends it, and says so" if "of memory, more than 100 MB" in err else err

    def row_a_failed_item_to_be_run_again(self, name):
        if self.refuses(name, ["--keep-failed", "kept"]):
            return "there is nothing"
        self.outcome(name, ["false"], "a\n", ["--keep-failed", "kept"])
        return "a script" if (self.folder / "kept/000001.sh").exists() else "there is nothing"

    def row_the_commands_when_it_is_killed(self, name):
        (self.folder / "pid").unlink(missing_ok=True)
        process = self.launch(name, ["sh", "-c", "echo $$ >pid; exec sleep 60"], "a\n")
        (pid,) = self.pids_in("pid", 1)
        process.kill()
        process.wait()
        process.stdout.close()
        process.stderr.close()
        return self.after_a_while(name, pid, "end as well", "live on")

    def row_a_process_that_a_command_leaves_behind(self, name):
        (self.folder / "pid").unlink(missing_ok=True)
        script = "sh -c 'echo $$ >pid; exec sleep 60' >/dev/null 2>&1 & until [ -s pid ]; do sleep 0.01; done"
        self.outcome(name, ["sh", "-c", script], "a\n")
        (pid,) = self.pids_in("pid", 1)
        return self.after_a_while(name, pid, "ends with the command", "lives on")

    def after_a_while(self, name, pid, ended, alive):
        # That something does not happen cannot be waited for; what ends is gone in a few milliseconds,
        # and nqrun, which is to end it, has all the time that a busy machine may take.
        end = time.monotonic() + (program.LIMIT_SECONDS if name == "nqrun" else 0.5)
        while program.is_alive(pid) and time.monotonic() < end:
            time.sleep(0.01)
        if not program.is_alive(pid):
            return ended
        os.kill(pid, signal.SIGKILL)
        return alive

    def resumed(self, name, words):
        return self.outcome(name, words, "a\nb\nc\n", ["-j1", "--joblog", "log-" + name, "--resume"])

    def row_an_item_whose_log_line_was_torn_by_a_power_loss(self, name):
        if name == "xargs" and self.refuses(name, ["--joblog", "log"]):
            return "there is no log"
        self.resumed(name, ["echo"])
        path = self.folder / ("log-" + name)
        lines = path.read_text().splitlines(keepends=True)
        path.write_text("".join(lines[:-1]) + lines[-1][:12])
        out = self.resumed(name, ["echo"])[1]
        return "runs again" if out == "c\n" else "never runs" if out == "" else out

    def row_resuming_the_log_of_another_command(self, name):
        if name == "xargs" and self.refuses(name, ["--joblog", "log"]):
            return "there is no log"
        (self.folder / ("log-" + name)).unlink(missing_ok=True)
        self.outcome(name, ["echo"], "a\n", ["--joblog", "log-" + name])
        status, out, _ = self.resumed(name, ["printf", "%s."])
        return "goes on" if out == "b.c." else "is refused" if status == 255 and out == "" else out

    def test_every_row_of_the_page_is_so(self):
        rows = table()
        self.assertGreater(len(rows), 10)
        self.lives_after_time_out = {}
        for what, cells in rows.items():
            check = getattr(self, "row_" + re.sub(r"\W+", "_", what.lower()).strip("_"))
            for name, cell in zip(NAMES, cells):
                with self.subTest(what=what, program=name):
                    self.assertEqual(check(name), cell)


if __name__ == "__main__":
    program.main()

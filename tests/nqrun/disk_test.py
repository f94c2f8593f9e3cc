"""What is on disk, and in which order, for the case that the power fails."""

import os

import program


class Disk(program.ProgramTest):
    def start_with_shim(self, *words, unsynced="", **options):
        shim = {"LD_PRELOAD": os.environ["SYNC_SHIM"], "NQRUN_SYNCED": str(self.folder / "synced"), "NQRUN_UNSYNCED": unsynced}
        return self.start(*words, env=dict(os.environ, **shim), **options)

    def wait_for_syncs(self, count):
        path = self.folder / "synced"

        def read():
            names = path.read_text().split() if path.exists() else []
            return names if len(names) >= count else None

        return program.wait_until(read, f"{count} syncs")

    def test_has_output_before_the_line_about_it_while_the_next_command_runs(self):
        script = "[ $0 = first ] || until [ -e go ]; do sleep 0.01; done; echo $0"
        with open(self.folder / "out", "wb") as out:
            process = self.start_with_shim("-j1", "--joblog", "log", "sh", "-c", script, ":::", "first", "second", stdout=out)
        self.assertEqual(self.wait_for_syncs(3), ["log", "out", "log"])
        self.assertEqual((self.folder / "log").read_text().count("\n"), 2)
        self.assertIsNone(process.poll())
        self.write("go", "")
        process.communicate(timeout=program.LIMIT_SECONDS)
        self.assertEqual(self.wait_for_syncs(5)[:5], ["log", "out", "log", "out", "log"])

    def test_has_results_before_the_lines_about_them(self):
        process = self.start_with_shim("-j1", "--joblog", "log", "--worker", os.environ["UPPER_WORKER"], "--results", "kept", ":::", "first", "hang")
        self.assertEqual(self.wait_for_syncs(3), ["log", "kept", "log"])
        process.terminate()
        process.communicate(timeout=program.LIMIT_SECONDS)

    def test_that_takes_a_file_no_further_ends_the_run(self):
        for name, said in (("log", "the joblog log"), ("out", "standard output"), ("kept", "--results kept")):
            with self.subTest(name), open(self.folder / "out", "wb") as out:
                words = ["-j1", "--joblog", "log", "--worker", os.environ["UPPER_WORKER"]]
                words += ["--results", "kept"] if name == "kept" else []
                process = self.start_with_shim(*words, ":::", "first", unsynced=name, stdout=out)
                _, err = process.communicate(timeout=program.LIMIT_SECONDS)
                self.assertEqual(process.returncode, 255, err)
                self.assertIn(f"nqrun: {said} cannot be put on disk: No space left on device\n".encode(), err)
                (self.folder / "log").unlink()


if __name__ == "__main__":
    program.main()

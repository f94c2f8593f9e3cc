"""The whole program: real workers, real terminals, files that hurt."""

import fcntl
import json
import os
import pathlib
import pty
import re
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import unittest
import zlib

import example_run
from example_jpeg import jpeg

CONTACT_SHEET, MAKE_HOSTILE_FILES = sys.argv[1:]
PROGRESS = re.compile(r"\r\x1b\[K(\d+ of[^\r\n]*)")
RED_AND_BLUE = b"P6 2 1 255\n\xff\0\0\0\0\xff"


def png(width, colour_type, row):
    text = b"\x89PNG\r\n\x1a\n"
    header = struct.pack(">IIBBBBB", width, 1, 8, colour_type, 0, 0, 0)
    for part in (b"IHDR" + header, b"IDAT" + zlib.compress(b"\0" + row), b"IEND"):
        text += struct.pack(">I", len(part) - 4) + part + struct.pack(">I", zlib.crc32(part))
    return text


class ContactSheet(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        self.pictures = self.folder / "pictures"
        self.pictures.mkdir()
        self.sheet = self.folder / "sheet.png"

    def write_pictures(self, *names):
        for name in names:
            (self.pictures / name).write_bytes(RED_AND_BLUE)

    def make_hostile_files(self, *kept):
        (self.folder / "gray.jpg").write_bytes(jpeg(100, 10_000 * [100]))
        subprocess.run([MAKE_HOSTILE_FILES, self.pictures, self.folder / "gray.jpg"], check=True)
        for file in self.pictures.iterdir():
            if kept and file.name not in kept:
                file.unlink()

    def command(self, *options):
        return [CONTACT_SHEET, "--output", self.sheet, *options, self.pictures]

    def draw(self, *options):
        return example_run.run(self.command(*options), b"")

    def report(self):
        return json.loads(self.sheet.with_suffix(".json").read_text())

    def statuses(self):
        return {pathlib.Path(file["path"]).name: file["status"] for file in self.report()["files"]}

    def tile_of(self, picture):
        """Width, height, and colours as 0xRRGGBB by column and row, as a worker makes them."""
        (self.folder / "picture").write_bytes(picture)
        (self.folder / "job").write_text(f"240 180\n{self.folder / 'picture'}")
        answer = example_run.run([CONTACT_SHEET, "--job", self.folder / "job"], b"").stdout
        width, height, *pixels = struct.unpack(f"{len(answer) // 4}I", answer)
        return width, height, lambda x, y: pixels[y % height * width + x % width] & 0xFFFFFF

    def refusal_of(self, picture):
        (self.pictures / "a.jpg").write_bytes(picture)
        self.draw()
        return self.report()["files"][0]["detail"]

    def start_on_terminal(self, columns, shown):
        """The program, at work on a file that hangs, its terminal, and what it has shown there."""
        self.make_hostile_files("repeats.jpg", "a.ppm")
        terminal, side = pty.openpty()
        self.addCleanup(os.close, terminal)
        fcntl.ioctl(side, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        command = self.command("--timeout", "600")
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=side)
        os.close(side)
        return process, terminal, self.read_until(terminal, shown)

    def read_until(self, terminal, pattern, text=""):
        while not re.search(pattern, text):
            text += os.read(terminal, 4096).decode()
        return text

    def end(self, process, terminal, number):
        """Sends the signal, which has to end it, and returns what is read from its terminal."""
        process.send_signal(number)
        text = ""
        try:
            while chunk := os.read(terminal, 4096):
                text += chunk.decode()
        except OSError:
            pass  # nobody is at the other side any more
        self.assertEqual(process.wait(example_run.SECONDS), -number)
        return text

    def test_every_kind_of_failure_costs_its_file_alone(self):
        self.write_pictures("a.ppm", "m.ppm", "z.ppm")
        self.make_hostile_files()
        ended = self.draw("--timeout", "2.5", "--memory", "150")
        self.assertEqual(ended.returncode, 1, ended)
        reasons = {
            "cut-off.jpg": "cannot be decoded: damaged JPEG: Premature end of JPEG file\n",
            "no-picture.jpg": r"exited \(status 1\): JPEG datastream contains no image\n",
            "repeats.jpg": r"timeout \(2.5 s\)",
            "vast.png": r"too much memory \(150 MB\)\n",
            "liar.ppm": r"(crashed \(SIGBUS\)|exited)",  # a sanitizer makes an exit status of the signal
        }
        for name, reason in reasons.items():
            self.assertRegex(ended.stderr.decode(), f"/{name}: {reason}")
        for name, status in self.statuses().items():
            self.assertEqual(status, "failed" if name in reasons else "ok")
        self.assertIn(b"3 of 8 shown, 5 failed", ended.stdout)

    def test_a_tile_has_the_proportions_of_its_picture_and_the_average_of_its_colours(self):
        stripes = b"P6 9600 400 255\n" + 400 * 240 * (90 * b"\xff" + 30 * b"\0")
        for picture, size in ((stripes, (240, 10)), (jpeg(100, 10_000 * [191]), (180, 180))):
            width, height, colour = self.tile_of(picture)
            self.assertEqual((width, height), size)
            for x in range(1, width - 1):
                self.assertAlmostEqual(colour(x, 5) & 0xFF, 191, delta=20)

    def test_a_small_picture_is_not_enlarged_and_a_transparent_one_lies_on_white(self):
        small = png(2, 6, b"\0\0\0\0\x10\x20\x30\xff")
        for picture, colours in ((RED_AND_BLUE, (0xFF0000, 0xFF)), (small, (0xFFFFFF, 0x102030))):
            width, height, colour = self.tile_of(picture)
            self.assertEqual((width, height, colour(0, 0), colour(1, 0)), (2, 1, *colours))

    def test_a_photograph_is_turned_as_the_camera_was_held(self):
        a, b, c, d = 0, 80, 160, 240  # the quarters, line by line
        photograph = [a, a, b, b, c, c, d, d]
        upright = ["abcd", "badc", "dcba", "cdab", "acbd", "cadb", "dbca", "bdac", "abcd"]
        for orientation, seen in enumerate(upright, start=1):
            width, height, colour = self.tile_of(jpeg(4, photograph, orientation))
            self.assertEqual((width, height), (16, 32) if 5 <= orientation <= 8 else (32, 16))
            corners = [colour(x, y) & 0xFF for x, y in ((1, 1), (-2, 1), (1, -2), (-2, -2))]
            expected = [80 * "abcd".index(corner) for corner in seen]
            self.assertEqual(corners, expected, orientation)

    def test_what_is_no_picture_is_told_with_the_reason(self):
        self.assertEqual(self.refusal_of(b""), "the file is empty")
        self.assertEqual(self.refusal_of(b"Dear aunt"), "neither a JPEG nor a PNG nor a PPM file")
        self.assertEqual(self.refusal_of(b"\x89PNG"), "damaged PNG: read beyond end of data")
        self.assertEqual(self.refusal_of(b"P6 1 1 65535\n123456"), "a PPM file of an unknown kind")
        self.assertRegex(self.refusal_of(b"P6 40000 9 255\n"), "40000 x 9 pixels are too many")
        os.mkfifo(self.pictures / "0.jpg")  # the first one, and nobody writes to it
        self.assertRegex(self.refusal_of(b""), "^not a file but a folder, a pipe")

    def test_many_pictures_make_several_sheets_in_the_order_of_the_names(self):
        names = [f"{number:03}.ppm" for number in range(100)]
        self.write_pictures(*names)
        ended = self.draw("--tile", "64")
        self.assertEqual(list(self.statuses()), names)
        sheets = [self.folder / f"sheet-{number}.png" for number in (1, 2, 3)]
        counts = ("1 of 3: 48", "2 of 3: 48", "3 of 3: 4")
        told = "".join(f"{sheet}: sheet {count} files\n" for sheet, count in zip(sheets, counts))
        self.assertEqual(ended.stderr.decode(), told)  # whole lines: this is no terminal
        self.assertIn(b"100 of 100 shown, 0 failed, report in ", ended.stdout)
        sizes = [struct.unpack(">II", sheet.read_bytes()[16:24]) for sheet in sheets]
        self.assertEqual((sizes[0], sizes[0][0]), (sizes[1], sizes[2][0]))
        self.assertLess(sizes[2][1], sizes[1][1])

    def test_a_folder_may_hold_the_sheet_of_an_earlier_run(self):
        self.write_pictures("a.ppm", "sheet-one.png")
        self.sheet = self.pictures / "sheet.png"
        (self.pictures / "sheet-7.png").touch()
        self.draw()
        self.assertEqual(self.draw().returncode, 0)
        self.assertEqual(list(self.statuses()), ["a.ppm", "sheet-one.png"])

    def test_names_may_be_any_bytes_and_links_may_lead_nowhere_or_round_in_a_circle(self):
        self.write_pictures(os.fsdecode(b"a\nb\xff.PPM"))
        os.symlink("missing", self.pictures / os.fsdecode(b"c\x1b[2J\n\xff.jpg"))
        os.symlink(".", self.pictures / "round")
        ended = self.draw()
        told = "c?[2J?\ufffd.jpg: cannot be decoded: cannot be opened: No such file or directory\n"
        self.assertIn(told, ended.stderr.decode())
        self.assertEqual(list(self.statuses().values()), ["ok", "failed"])

    def test_what_cannot_work_is_refused_before_any_file_is_decoded(self):
        def refuses(*options):
            ended = self.draw(*options)
            self.assertEqual((ended.returncode, ended.stdout), (2, b""))
            return ended.stderr.decode()

        self.assertRegex(refuses(), "^contact-sheet: there are no pictures")
        self.make_hostile_files("cut-off.jpg")  # would be told as a failure
        (self.folder / "a.png").mkdir()
        (self.folder / "b.json").mkdir()
        for name in ("missing/sheet.png", "a.png", "b.png"):
            self.sheet = self.folder / name
            self.assertRegex(refuses(), r"^contact-sheet: \S+ cannot be written: .*\n$")
        self.sheet = self.folder / "sheet.jpg"
        self.assertIn("a sheet is a .png file", refuses())
        self.sheet = self.folder / "sheet.png"
        self.assertIn("Directory does not exist", refuses("--keep", self.folder / "missing"))
        self.assertIn("no such file", refuses(self.folder / "missing.jpg"))
        self.assertIn("too many to draw", refuses("--tile", "2048", "--rows", "100"))
        for seconds in ("0", "-1", "nan", "inf", "2,5"):
            self.assertIn("--timeout", refuses("--timeout", seconds))

    def test_a_full_disk_is_told_and_leaves_no_sheet(self):
        self.write_pictures("a.ppm")
        # A limit on the size of files stands in for the disk.
        limited = ["sh", "-c", 'trap "" XFSZ; ulimit -f 1; exec "$@"', "sh"]
        ended = example_run.run([*limited, *self.command("--tile", "1000")], b"")
        self.assertEqual(ended.returncode, 2)
        self.assertIn(b"sheet.png cannot be written: File too large", ended.stderr)
        self.assertEqual(list(self.folder.iterdir()), [self.pictures])

    def test_the_line_of_progress_fits_into_the_terminal_also_when_that_shrinks(self):
        process, terminal, text = self.start_on_terminal(20, PROGRESS)
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 10, 0, 0))
        text = self.read_until(terminal, r"K0 of 1 sh\r[^\n]*K0 of 1 sh\r", text)
        self.end(process, terminal, signal.SIGINT)
        lengths = [len(line) for line in PROGRESS.findall(text)]
        self.assertEqual(set(lengths), {19, 9})
        self.assertEqual(lengths, sorted(lengths, reverse=True))

    def test_an_interrupt_writes_what_is_done_though_a_file_hangs(self):
        self.write_pictures("a.ppm")
        process, terminal, _ = self.start_on_terminal(80, "1 of 2 shown")
        self.assertIn("interrupted: stopping", self.end(process, terminal, signal.SIGINT))
        self.assertEqual(self.statuses(), {"a.ppm": "ok", "repeats.jpg": "not-done"})
        self.assertTrue(self.sheet.exists())

    def test_an_interrupt_before_anything_is_done_writes_no_sheet(self):
        process, terminal, _ = self.start_on_terminal(80, "0 of 1 shown")
        self.end(process, terminal, signal.SIGTERM)
        self.assertEqual(self.report()["sheets"], [])
        self.assertEqual(list(self.folder.glob("*.png*")), [])

    def test_a_second_interrupt_ends_it_whatever_it_does(self):
        process, terminal, _ = self.start_on_terminal(80, "0 of 1 shown")
        os.mkfifo(self.folder / "sheet.json.part")  # nobody reads: the report is never written
        process.send_signal(signal.SIGINT)
        self.read_until(terminal, "interrupted: stopping")
        self.end(process, terminal, signal.SIGINT)
        self.assertFalse(self.sheet.with_suffix(".json").exists())

    def test_a_kept_job_fails_again_by_hand(self):
        self.make_hostile_files("no-picture.jpg")
        self.draw("--keep", self.folder)
        kept = self.report()["files"][0]["kept"]
        again = example_run.run([CONTACT_SHEET, "--job", kept], b"")
        self.assertEqual(again.returncode, 1)
        self.assertIn(b"JPEG datastream contains no image", again.stderr)

    def test_the_help_fits_a_screen_and_speaks_of_files_and_seconds(self):
        text = example_run.run([CONTACT_SHEET, "--help"], b"").stdout.decode()
        lines = text.splitlines()
        self.assertLessEqual((len(lines), max(map(len, lines))), (24, 80))
        self.assertIn("--timeout N=10 ", text)
        self.assertNotRegex(text, r"\b(UINT|INT|FLOAT|TEXT:|REQUIRED)\b")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

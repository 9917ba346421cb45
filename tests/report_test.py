"""pelyx-report against a short pelyx-sim --compare: every picture drawn and not blank, and one
clear line for a file it cannot use. Arguments: the pelyx-sim and pelyx-report paths."""

import os
import subprocess
import sys
import tempfile
import unittest

import matplotlib.image

SIM, REPORT = sys.argv[1], sys.argv[2]


def colours(png):
    pixels = matplotlib.image.imread(png)
    return len({tuple(p) for p in pixels.reshape(-1, pixels.shape[-1])[::7]})


class Report(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="pelyx-report-")
        run = subprocess.run([SIM, "--compare", "--duration", "2.5", "--summary", cls.path("compare.json"),
                              "--frames", cls.path("frames.csv")], capture_output=True, text=True)
        assert run.returncode == 0, run.stderr
        cls.sweep = cls.path("sweep.json")
        with open(cls.sweep, "w") as f:
            f.write('{"schema": "pelyx-sim-sweep/1", "scenario": "s", "runs": ['
                    '{"rank": 1, "p50_ms": 40, "late": 10, "boosts": 2, "non_dominated": true},'
                    '{"rank": 2, "p50_ms": 45, "late": 8, "boosts": 0, "non_dominated": true},'
                    '{"rank": 3, "p50_ms": 50, "late": 30, "boosts": 4, "non_dominated": false}]}')

    @classmethod
    def path(cls, name):
        return os.path.join(cls.dir, name)

    def report(self, *files):
        return subprocess.run([REPORT, "--out", self.path("out"), *files], capture_output=True, text=True)

    def test_every_picture_is_drawn_and_not_blank(self):
        run = self.report(self.path("compare.json"), self.path("frames.enabled.csv"),
                          self.path("frames.disabled.csv"), self.sweep)
        self.assertEqual(run.returncode, 0, run.stderr)
        pictures = [line for line in run.stdout.splitlines() if line.endswith(".png")]
        self.assertEqual(sorted(os.path.basename(p) for p in pictures),
                         ["latency.png", "sweep.png", "timeline-enabled.png"])
        for png in pictures:
            self.assertGreater(colours(png), 8, f"{png} looks blank")
        with open(self.path("out/index.html")) as f:
            page = f.read()
        self.assertEqual(page.count("data:image/png;base64,"), 3, "the page carries its pictures")

    def test_a_file_it_cannot_use_gets_one_line_and_status_2(self):
        with open(self.path("frames.enabled.csv")) as f:
            lines = f.readlines()
        cases = {
            "truncated.csv": ("".join(lines[:5]) + lines[5][:20], ":6: "),
            "garbled.csv": ("".join(lines[:3]) + lines[3].replace(",", ",x", 3), ":4: "),
            "other.csv": ("a,b\n1,2\n", "not a pelyx-sim --frames file"),
            "broken.json": ('{"schema": ', "not JSON"),
            "stranger.json": ('{"schema": "other"}', "not a pelyx-sim summary"),
        }
        for name, (text, expected) in cases.items():
            with open(self.path(name), "w") as f:
                f.write(text)
            run = self.report(self.path(name))
            self.assertEqual(run.returncode, 2, name)
            self.assertEqual(len(run.stderr.splitlines()), 1, run.stderr)
            self.assertIn(expected, run.stderr, name)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]])

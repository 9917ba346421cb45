"""pelyx-report against short pelyx-sim runs: the page of a run, a --compare and a sweep carries
every figure the console prints, rounded the same, with no null in a cell; every picture is drawn,
not blank and inside the page; a file it cannot use gets one clear line.
Arguments: the pelyx-sim and pelyx-report paths."""

import collections
import html
import html.parser
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
import types
import unittest

import matplotlib.image

SIM, REPORT = map(os.path.abspath, sys.argv[1:3])
CAPTURES = os.path.join(os.path.dirname(REPORT), "..", "sim", "captures")
NULLS = re.compile(r"\b(None|nan|NaN|null|undefined)\b")


def colours(png):
    pixels = matplotlib.image.imread(png)
    return len({tuple(p) for p in pixels.reshape(-1, pixels.shape[-1])[::7]})


def numbers(text):
    return collections.Counter(re.findall(r"[-+]?\d+(?:\.\d+)?", text))


class Page(html.parser.HTMLParser):
    """The text a reader sees, and the text of each table cell."""

    def __init__(self, text):
        super().__init__()
        self.text, self.cells, self.cell = [], [], None
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        if tag in ("td", "th"):
            self.cell = []

    def handle_endtag(self, tag):
        if tag in ("td", "th") and self.cell is not None:
            self.cells.append("".join(self.cell).strip())
            self.cell = None

    def handle_data(self, data):
        self.text.append(data)
        if self.cell is not None:
            self.cell.append(data)


class Report(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="pelyx-report-")
        cls.console = {}
        # Two captures, one with no touch to measure, on two seeds: per entry, per seed and
        # recommendation rows, and the pictures of a sweep over several entries.
        with open(cls.path("sweep-plan.json"), "w") as f:
            json.dump({"scenario": os.path.join(CAPTURES, "..", "scenarios", "replay.json"), "layer": "game",
                       "seed": 1, "seeds": 2, "duration_s": 2.5, "replays": [
                           {"capture": os.path.join(CAPTURES, "presentmon-csgo-120fps.csv"), "package": "com.example.a"},
                           {"capture": os.path.join(CAPTURES, "dumpsys-gfxinfo-framestats-sample.txt"),
                            "package": "com.example.b"}],
                       "axes": [{"hint": 4171, "text": "com.example.game", "values": [None, 4500, 6000]}]}, f)
        # A property the library refuses puts an error line in the log.
        for name, args in {"run": ["--frames", cls.path("run.csv"),
                                   "--prop", "vendor.perf.gpu_jank_filter.min_exec_time_mult=abc"],
                           "compare": ["--compare", "--frames", cls.path("frames.csv")],
                           "sweep": ["--sweep", cls.path("sweep-plan.json"), "--recommend", cls.path("hints.json")]
                           }.items():
            # Five seconds: the frame rescue boosts at 4.5 s, and the last phase (from 5 s) is empty.
            duration = {"run": ["--duration", "5"], "compare": ["--duration", "2.5"], "sweep": []}[name]
            run = subprocess.run([SIM, *duration, "--jobs", "2", "--summary", cls.path(name + ".json"), *args],
                                 capture_output=True, text=True)
            assert run.returncode == 0, run.stderr
            cls.console[name] = run.stdout
        cls.inputs = {"run": ["run.json", "run.csv"], "compare": ["compare.json", "frames.enabled.csv",
                                                                 "frames.disabled.csv"], "sweep": ["sweep.json"]}
        cls.pages, cls.pictures = {}, {}
        for name, files in cls.inputs.items():
            run = subprocess.run([REPORT, "--out", cls.path(name), *map(cls.path, files)],
                                 capture_output=True, text=True)
            assert run.returncode == 0, run.stderr
            assert run.stdout.splitlines()[-1] == f"report: {cls.path(name)}/index.html", run.stdout
            cls.pictures[name] = [line for line in run.stdout.splitlines() if line.endswith(".png")]
            with open(cls.path(name, "index.html")) as f:
                cls.pages[name] = f.read()

    @classmethod
    def path(cls, *names):
        return os.path.join(cls.dir, *names)

    def report(self, *files):
        return subprocess.run([REPORT, "--out", self.path("out"), *files], capture_output=True, text=True)

    def test_every_figure_the_console_prints_is_on_the_page_as_rounded_there(self):
        with open(self.path("compare.json")) as f:
            compared = json.load(f)["layer"]
        for name, console in self.console.items():
            if name == "compare":
                # The summary keeps the other vsync phases for the compared layer only: the other
                # layers' range column (from column 76 on) has no source.
                kept, other = [], False
                for line in console.splitlines():
                    if re.match(r"^\S+ \(", line) and not line.startswith("kinds"):
                        other = not line.startswith(compared + " (")
                    elif line == "run" or line.startswith("kinds"):
                        other = False
                    kept.append(line[:76] if other else line)
                console = "\n".join(kept)
            if name == "sweep":
                # cpu/s, the ranking's eighth figure, is a host figure the summary does not keep.
                console = re.sub(r"(?m)^(\d+ +(?:\* +)?(?:\S+ +){7})\S+", r"\1", console)
            text = " ".join(Page(re.sub(r"data:image/png;base64,[^'\"]*", "", self.pages[name])).text)
            missing = numbers(console) - numbers(text)
            self.assertFalse(missing, f"{name}: figures of the console missing from the page")
            # Log lines in full; the sweep's rule and every value its recommendation pushes, in words.
            lines = console.splitlines()
            words = [line[4:] for line in lines if line.startswith(("  E ", "  W "))]
            words += [line[len("ranked: "):] for line in lines if line.startswith("ranked: ")]
            words += [v for line in lines for v in re.findall(r"  hint \d+ = (\S+)", line) if v != "null"]
            self.assertTrue(words or name == "compare", f"{name}: the console has no log line, rule or push")
            for w in words:
                self.assertIn(w, text, name)

    def test_no_cell_reads_a_null_where_nothing_was_measured(self):
        # The short run ends before its last phase and the chat layer reads no touch: nulls in the
        # summary. A sweep with a failed run has nulls of its own.
        with open(self.path("sweep.json")) as f:
            sweep = json.load(f)
        sweep["runs"].append({"failed": True, "error": "a run with the library enabled failed", "rank": None,
                              "p50_ms": None, "label": "x", "non_dominated": False})
        self.assertIsNone(sweep["entries"][1]["baseline"]["p50_ms"], "the capture without touches")
        with open(self.path("failed-sweep.json"), "w") as f:
            json.dump(sweep, f)
        run = self.report(self.path("failed-sweep.json"))
        self.assertEqual(run.returncode, 0, run.stderr)
        with open(self.path("out", "index.html")) as f:
            pages = dict(self.pages, failed_sweep=f.read())
        self.assertIn("failed: a run with the library enabled failed", pages["failed_sweep"])
        for name, text in pages.items():
            cells = Page(text).cells
            self.assertGreater(len(cells), 40, name)
            self.assertEqual([c for c in cells if NULLS.search(c)], [], name)
        self.assertIn("no frame read a touch", pages["run"])

    def test_the_recommendation_beside_the_page_plays_back_the_figures_it_shows(self):
        with open(self.path("hints.json")) as f, open(self.path("sweep", "hints.json")) as g:
            self.assertEqual(g.read(), f.read(), "the hints file is the one --recommend writes")
        with open(self.path("sweep.json")) as f:
            entry = json.load(f)["entries"][0]
        # The second seed's arguments: its vsyncs are moved, which the first seed's are not.
        commands = re.findall(r"<code>pelyx-sim (.*?)</code>", self.pages["sweep"])
        self.assertEqual(len(commands), 4, "two entries, two seeds")
        args = shlex.split(html.unescape(commands[1]))
        run = subprocess.run([SIM, *args, "--summary", self.path("replayed.json")], cwd=self.path("sweep"),
                             capture_output=True, text=True)
        self.assertEqual(run.returncode, 0, run.stderr)
        with open(self.path("replayed.json")) as f:
            layer = next(l for l in json.load(f)["layers"] if l["label"] == entry["layer"])
        expected = entry["recommended"]["per_seed"][1]
        self.assertEqual((layer["frame_timeline"]["late"], layer["input_to_present_ms"]["p50"]),
                         (expected["late"], expected["p50_ms"]))

    def test_every_picture_is_drawn_not_blank_and_inside_its_page(self):
        expected = {"run": ["latency.png", "timeline-chat.png", "timeline-game.png"],
                    "compare": ["latency.png", "timeline-disabled-chat.png", "timeline-disabled-game.png",
                                "timeline-enabled-chat.png", "timeline-enabled-game.png"],
                    "sweep": ["sweep-entries.png", "sweep-front.png", "sweep.png"]}
        for name, pictures in self.pictures.items():
            self.assertEqual(sorted(os.path.basename(p) for p in pictures), expected[name])
            for png in pictures:
                self.assertGreater(colours(png), 8, f"{png} looks blank")
            page = self.pages[name]
            self.assertEqual(page.count("src='data:image/png;base64,"), len(pictures), name)
            links = re.findall(r"(?:src|href)=['\"]?([^'\" >]+)", page)
            self.assertEqual([u for u in links if not (u.startswith(("data:", "#")) or os.path.exists(
                self.path(name, u)))], [], f"{name}: a link that leaves the page's directory")

    def test_every_layer_is_drawn_on_the_same_axes_with_only_its_own_boosts(self):
        report = types.ModuleType("pelyx_report")
        report.__file__ = REPORT
        with open(REPORT) as f:
            exec(compile(f.read(), REPORT, "exec"), report.__dict__)
        with open(self.path("run.json")) as f:
            summary = json.load(f)
        rows = report.read_frames(self.path("run.csv"))
        layers = {label: [r for r in rows if r["layer"] == label] for label in report.drawn_layers(summary, rows)}
        self.assertEqual(list(layers), ["game", "chat"])
        limits = report.timeline_limits(layers.values(), summary)
        axes = {label: report.timeline_figure(summary, frames, label, label, limits).get_axes()
                for label, frames in layers.items()}
        for game, chat in zip(axes["game"][:3], axes["chat"][:3]):
            self.assertEqual((game.get_xlim(), game.get_ylim()), (chat.get_xlim(), chat.get_ylim()))
        self.assertGreaterEqual(axes["chat"][0].get_ylim()[1], max(report.present_gaps(layers["game"])))
        # The boost records are the game's (frame rescue acts on it alone): a boost-level axis there only.
        self.assertTrue(summary["boost_records"])
        self.assertEqual([len(axes["game"]), len(axes["chat"])], [4, 3])

    def test_names_and_lines_from_apps_stay_text_on_the_page(self):
        with open(self.path("run.json")) as f:
            summary = json.load(f)
        hostile = "<img src=x onerror=alert(1)></table>&amp;"
        summary["layers"][1]["name"] = hostile
        summary["scene_reports"].append(hostile)
        summary["log_error_lines"] = [hostile]
        with open(self.path("hostile.json"), "w") as f:
            json.dump(summary, f)
        run = self.report(self.path("hostile.json"), self.path("run.csv"))
        self.assertEqual(run.returncode, 0, run.stderr)
        with open(self.path("out", "index.html")) as f:
            page = f.read()
        self.assertEqual(page.count("<img"), 3, "the pictures' images and no other")
        self.assertEqual(" ".join(Page(page).text).count(hostile), 3)

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

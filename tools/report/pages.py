"""The report's page: a run, a --compare or a sweep in tables a reader scans, with its pictures.

Figures are rounded as pelyx-sim's console report rounds them. Where nothing was measured a cell
reads "–" or says why in a few words: the summary's nulls never reach the page. The page is one
file with its pictures inside, so it survives being attached to a bug on its own; each picture
also links to its PNG beside the page.
"""

import base64
import html
import json
import math
import os
import re

DASH = "–"

# The kinds of app pelyx-sim --compare plays in the first game's place, by their --loop option.
KIND_NAMES = {
    "choreographer": "Choreographer app, 60 fps",
    "free": "free-running game, blocks in dequeue",
    "present_time": "game that sets its own present times, 60 fps",
    "choreographer@30": "game capped at 30 fps",
}

STYLE = """
body{font:14px/1.45 system-ui,sans-serif;color:#1d1d1d;max-width:1280px;margin:0 auto;padding:0 16px 40px}
h1{font-size:22px;margin:18px 0 4px}h2{font-size:18px;margin:26px 0 6px;border-bottom:1px solid #ccc}
h3{font-size:15px;margin:18px 0 4px}nav{margin:6px 0 10px}nav a{margin-right:14px}
table{border-collapse:collapse;margin:4px 0 12px}td,th{border:1px solid #d6d6d6;padding:2px 8px;
text-align:left;vertical-align:top}th{background:#f2f2f2;font-weight:600}td.n{text-align:right;
font-variant-numeric:tabular-nums;white-space:nowrap}tr.group th{background:#e6edf7}th.sub{padding-left:22px;
font-weight:normal}code,pre{font:12px/1.4 monospace}pre{white-space:pre-wrap;background:#f6f6f6;padding:6px 8px;
margin:4px 0}img{max-width:100%;height:auto}figure{margin:8px 0 16px}figcaption{color:#555}
.note{color:#666}.fail{color:#b00020;font-weight:600}details{margin:10px 0}summary{cursor:pointer;font-weight:600}
"""


class Raw(str):
    """Markup made here, put on the page as it is."""


def esc(value):
    return value if isinstance(value, Raw) else html.escape(str(value), quote=True)


def at(data, *path):
    """The value at `path` in nested objects, None where any step is missing."""
    for key in path:
        if not isinstance(data, dict) or key not in data:
            return None
        data = data[key]
    return data


def is_number(v):
    return isinstance(v, (int, float)) and not isinstance(v, bool) and math.isfinite(v)


def ms(v, form="%.1f"):
    return form % v if is_number(v) else DASH


def count(v):
    return str(int(v)) if is_number(v) else DASH


def yes(v):
    return "yes" if v else "no"


def latency(figures, counted, nothing):
    """"54.6 / 60.1 ms (56)" as the console's, or a phrase when nothing was counted."""
    n = at(figures, counted)
    if not n:
        return nothing
    return f"{ms(figures.get('p50'))} / {ms(figures.get('p95'))} ms ({count(n)})"


def causes(timeline):
    c = at(timeline, "by_cause") or {}
    return f"app deadline {count(c.get('app_deadline'))}, GPU {count(c.get('gpu_late'))}, " \
           f"composition {count(c.get('composition'))}"


def stuffing(timeline):
    s = at(timeline, "buffer_stuffing") or {}
    text = f"{count(s.get('frames'))} frames"
    if is_number(s.get("late_ms_p50")):
        text += f" (+{ms(s['late_ms_p50'])} ms p50, +{ms(s.get('late_ms_p95'))} ms p95)"
    return text


def mode_history(modes):
    text = " → ".join(f"{count(m.get('mode'))} @{ms(m.get('t_s'))}s" for m in modes or [])
    return text or "none reported"


def cell(value, tag="td", numbers=True):
    if tag == "th" and isinstance(value, str) and value.startswith("  "):
        return f"<th class=sub>{esc(value.strip())}</th>"
    # Short figures line up on the right, where a column of them is read downwards.
    text = str(value)
    numeric = (numbers and tag == "td" and not isinstance(value, Raw) and len(text) < 30
               and re.match(r"^[-+]?[\d–]", text))
    return f"<{tag}{' class=n' if numeric else ''}>{esc(value)}</{tag}>"


class Group:
    """A row that heads the rows below it across the whole table."""

    def __init__(self, text):
        self.text = text


def table(head, rows, numbers=True):
    parts = ["<table>"]
    if head:
        parts.append("<tr>" + "".join(cell(h, "th") for h in head) + "</tr>")
    width = max([len(head or [])] + [len(r) for r in rows if not isinstance(r, Group)])
    for row in rows:
        if isinstance(row, Group):
            parts.append(f"<tr class=group><th colspan={width}>{esc(row.text)}</th></tr>")
        else:
            parts.append("<tr>" + cell(row[0], "th") + "".join(cell(v, numbers=numbers) for v in row[1:]) + "</tr>")
    parts.append("</table>")
    return "".join(parts)


def facts(pairs):
    return table(None, [(k, v) for k, v in pairs], numbers=False)


def pre(lines):
    return "<pre>" + "\n".join(esc(line) for line in lines) + "</pre>"


def note(text):
    return f"<p class=note>{esc(text)}</p>"


class Pictures:
    """The pictures drawn for a page by name; each one goes where a section asks for it."""

    def __init__(self, pictures):
        self.pictures = dict(pictures)
        self.used = set()

    def show(self, name):
        if name not in self.pictures:
            return ""
        self.used.add(name)
        title, path = self.pictures[name]
        with open(path, "rb") as f:
            data = base64.b64encode(f.read()).decode()
        file = html.escape(os.path.basename(path), quote=True)
        return (f"<figure><a href='{file}'><img alt='{esc(title)}' src='data:image/png;base64,{data}'></a>"
                f"<figcaption>{esc(title)}</figcaption></figure>")

    def rest(self):
        return "".join(self.show(name) for name in self.pictures if name not in self.used)


def slug(label):
    return re.sub(r"[^A-Za-z0-9_.-]", "_", str(label))


# ---- one run ------------------------------------------------------------------------------------

def run_header(s):
    d = s.get("display") or {}
    phase = s.get("vsync_phase")
    first = s.get("first_act_s")
    return facts([
        ("scenario", s.get("scenario", DASH)),
        ("library", "enabled" if s.get("library_enabled") else "disabled"),
        ("clock", s.get("clock", DASH)),
        ("seed", count(s["seed"]) if "seed" in s else "not in this summary"),
        ("duration", f"{ms(s.get('duration_s'))} s"),
        ("display", f"{ms(d.get('refresh_hz'), '%g')} Hz ({count(d.get('width'))}x{count(d.get('height'))})"),
        ("vsyncs", f"{ms(phase, '%g')} of a period early" if is_number(phase) and phase else "at the scenario's times"),
        ("the library first acted", f"at {ms(first, '%.2f')} s" if is_number(first) else "never"),
        ("GPU", f"{ms(at(s, 'gpu', 'base_mhz'), '%g')} to {ms(at(s, 'gpu', 'max_mhz'), '%g')} MHz"),
        ("wall time", f"{ms(s.get('wall_s'), '%.2f')} s" +
         (f", {count(s['handoffs'])} hand-offs of the turn" if "handoffs" in s else "")),
    ])


def layers_overview(s):
    rows = []
    for l in s.get("layers", []):
        h, b, lat = l.get("holds") or {}, l.get("boosts") or {}, l.get("input_to_present_ms") or {}
        boosts = "/".join(count(b.get(k)) for k in ("level1", "level2", "level3", "withdrawn"))
        target = DASH
        if is_number(l.get("target_fps")):
            target = f"{ms(l['target_fps'], '%g')} {'on' if l.get('target_fps_active') else 'off'}"
        rows.append((l.get("label"), yes(l.get("promoted")), count(l.get("fps_mode")), count(l.get("frames_queued")),
                     count(l.get("frames_presented")), ms(l.get("presented_fps")),
                     f"{count(at(l, 'frame_timeline', 'late'))}/{count(at(l, 'frame_timeline', 'late_vsyncs'))}",
                     f"{count(h.get('count'))}/{ms(h.get('p50_ms'))}/{ms(h.get('p99_ms'))}",
                     boosts if b.get("attributed", True) else "(run)",
                     f"{ms(lat.get('p50'))}/{ms(lat.get('p95'))} ({count(lat.get('frames'))})", target,
                     yes(l.get("quick_touch"))))
    return table(["layer", "promoted", "mode", "queued", "shown", "fps", "janks/vsyncs", "holds n/p50/p99 ms",
                  "boosts L1/L2/L3/wd", "touch→present p50/p95 ms", "target", "QT"], rows)


def layer_figures(l):
    h, b, t, g = (l.get(k) or {} for k in ("holds", "boosts", "smart_touch", "gpu"))
    ft = l.get("frame_timeline") or {}
    holds = "none over 0.5 ms"
    if h.get("count"):
        holds = (f"{count(h['count'])}, p50 {ms(h.get('p50_ms'))} ms, p99 {ms(h.get('p99_ms'))} ms; "
                 f"{count(h.get('quick_touch'))} while no target rate applied")
    target = "none pushed"
    if is_number(l.get("target_fps")):
        target = f"{ms(l['target_fps'], '%g')} fps, {'on' if l.get('target_fps_active') else 'off'}"
    rows = [
        ("name", l.get("name", DASH)),
        ("game", yes(l.get("game"))),
        ("promoted", yes(l.get("promoted"))),
        ("fps modes", mode_history(l.get("fps_modes"))),
        ("frames queued / shown", f"{count(l.get('frames_queued'))} / {count(l.get('frames_presented'))}"),
        ("presented fps", ms(l.get("presented_fps"))),
        ("fps over the last second", ms(l.get("last_second_fps"))),
        ("janks (frame timeline)", f"{count(ft.get('late'))} in {count(ft.get('late_vsyncs'))} vsyncs; "
                                   f"{count(ft.get('on_time'))} frames on time"),
        ("janks by cause", causes(ft)),
        ("buffer stuffing", stuffing(ft)),
        ("rhythm janks", count(l.get("rhythm_janks"))),
        ("holds in the queue call", holds),
        ("quick touch", yes(l.get("quick_touch"))),
        ("boosts L1/L2/L3/withdrawn",
         "/".join(count(b.get(k)) for k in ("level1", "level2", "level3", "withdrawn"))
         if b.get("attributed", True) else "the run's records name no layer (see Boosts)"),
        ("boost events from the service", count(b.get("service"))),
        ("target rate", target),
        ("touch→present per frame p50 / p95",
         latency(l.get("input_to_present_ms"), "frames", "no frame read a touch")),
        ("per touch event p50 / p95", latency(l.get("touch_event_to_present_ms"), "events", "no touch event shown")),
        ("smart touch", f"{count(t.get('instant_buffers'))} instant buffers, {count(t.get('moves_consumed_now'))} "
                        f"moves consumed now, {count(t.get('moves_held'))} held"),
        ("late GPU fences", f"{count(g.get('late_fences'))}, deadline requests {count(g.get('deadline_requests'))}"),
    ]
    r = l.get("replay")
    if isinstance(r, dict):
        rows.append(("replay", f"{count(r.get('replayed'))}/{count(r.get('frames'))} frames of {r.get('file', DASH)} "
                               f"(median {ms(r.get('median_ms'))} ms); mode held longest "
                               f"{count(r.get('longest_fps_mode'))}, expected {count(r.get('expected_fps_mode'))}"))
    return facts(rows)


def phases_table(l):
    rows = []
    for p in l.get("phases") or []:
        ft = p.get("frame_timeline") or {}
        rows.append((p.get("name", DASH), f"{ms(p.get('from_s'))}-{ms(p.get('to_s'))} s",
                     count(p.get("frames_presented")),
                     latency(p.get("input_to_present_ms"), "frames", "no touch"),
                     latency(p.get("touch_event_to_present_ms"), "events", "no touch"),
                     f"{count(ft.get('late'))} ({count(ft.get('late_vsyncs'))} vsyncs)", causes(ft), stuffing(ft),
                     count(p.get("rhythm_janks"))))
    if not rows:
        return note("no phases in this summary")
    return table(["phase", "time", "frames shown", "touch→present per frame p50 / p95",
                  "per touch event p50 / p95", "janks", "janks by cause", "buffer stuffing", "rhythm janks"], rows)


def layer_section(l, pictures, picture):
    label = l.get("label", DASH)
    body = layer_figures(l) + "<h3>Phases</h3>" + phases_table(l)
    shown = pictures.show(picture)
    body += shown or note("no frames of this layer to draw (give pelyx-report the run's --frames file)")
    title = f"Layer {label} ({l.get('package', DASH)}, layer {count(l.get('id'))}, {l.get('loop', DASH)} loop)"
    return (f"layer-{slug(label)}", title, body)


def boosts_section(s):
    b = s.get("boosts") or {}
    body = facts([("boost device", "opened" if b.get("device_opened") else "never opened"),
                  ("records", f"{count(b.get('records'))}: L1 {count(b.get('level1'))}, L2 {count(b.get('level2'))}, "
                              f"L3 {count(b.get('level3'))}, withdrawn {count(b.get('withdrawn'))}")])
    records = s.get("boost_records") or []
    if records:
        body += table(["time (s)", "level", "headroom", "frequency"],
                      [(ms(r.get("t_s"), "%.3f"), count(r.get("level")), count(r.get("headroom")),
                        count(r.get("frequency"))) for r in records])
    else:
        body += note("the library wrote no boost record")
    return ("boosts", "Boosts", body)


def service_section(s):
    events = s.get("perf_events") or {}
    hints = s.get("hints") or {}
    pids = s.get("low_latency_pids") or []
    body = facts([("low-latency pids", " ".join(count(p) for p in pids) or "none"),
                  ("target fps active", yes(s.get("target_fps_active"))),
                  ("touch boosts", count(s.get("touch_boosts"))),
                  ("hints", f"delivered {count(hints.get('delivered'))}, refused {count(hints.get('refused'))}")])
    body += "<h3>Events the library sent</h3>"
    body += table(["event", "count"], [(k, count(v)) for k, v in events.items()]) if events else note("none")
    reports = s.get("scene_reports") or []
    body += f"<h3>Scene reports ({len(reports)})</h3>"
    if reports:
        body += table(["#", "report"], [(str(i), Raw(f"<code>{esc(r)}</code>")) for i, r in enumerate(reports, 1)])
    else:
        body += note("none")
    return ("service", "The performance service", body)


def host_section(s):
    v = s.get("vsync") or {}
    body = facts([("vsync", f"{count(v.get('count'))} ticks, {count(v.get('missed'))} missed, "
                            f"wake-up lateness p99 {ms(v.get('late_p99_ms'))} ms")])
    cpu = s.get("library_cpu_ms")
    if isinstance(cpu, dict):
        body += "<h3>Library threads' CPU</h3>"
        body += table(["thread", "CPU ms"], [(k, ms(v)) for k, v in cpu.items() if k != "ms_per_s"] +
                      [("per simulated second", ms(cpu.get("ms_per_s")))])
    trace = s.get("trace")
    if isinstance(trace, dict):
        body += "<h3>Trace</h3>" + facts([
            ("file", trace.get("file", DASH)),
            ("events", f"{count(trace.get('events'))} ({count(trace.get('simulator_slices'))} simulator slices, "
                       f"{count(trace.get('library_slices'))} library slices)"),
            ("balanced", yes(trace.get("balanced")))])
        if trace.get("problems"):
            body += pre(trace["problems"])
    return ("host", "Vsync, CPU and trace", body)


def log_section(s):
    body = facts([("errors", count(s.get("log_errors"))), ("warnings", count(s.get("log_warnings")))])
    for kind, lines_key, total in (("Errors", "log_error_lines", "log_errors"),
                                   ("Warnings", "log_warning_lines", "log_warnings")):
        lines = s.get(lines_key) or []
        if lines:
            shown = f"the first {len(lines)} of {count(s.get(total))}" if (s.get(total) or 0) > len(lines) else "all"
            body += f"<h3>{kind} ({shown})</h3>" + pre(lines)
    return ("log", "Log", body)


def failures(s):
    lines = s.get("failures") or []
    return "".join(f"<p class=fail>FAILURE: {esc(f)}</p>" for f in lines)


def run_sections(s, pictures, prefix="timeline"):
    """The sections of one run; its layers' pictures are named `prefix`-LABEL."""
    sections = [("run", "Run", failures(s) + run_header(s)), ("layers", "Layers", layers_overview(s))]
    for l in s.get("layers", []):
        sections.append(layer_section(l, pictures, f"{prefix}-{slug(l.get('label'))}"))
    if any(at(l, "input_to_present_ms", "frames") for l in s.get("layers", [])):
        sections.append(("latency", "Touch to present", pictures.show("latency") or
                         note("no frames to draw (give pelyx-report the run's --frames file)")))
    sections += [boosts_section(s), service_section(s), host_section(s), log_section(s)]
    return sections


# ---- --compare ----------------------------------------------------------------------------------

def phase_of(layer, name):
    return next((p for p in (layer or {}).get("phases") or [] if p.get("name") == name), None)


def delta(a, b, unit):
    if not (is_number(a) and is_number(b)):
        return ""
    d = b - a
    text = "%+.1f" % d + unit
    if a != 0:
        text += " (%+.0f%%)" % (100.0 * d / a)
    return text


def change_range(pairs, get, integer):
    """"-15.0..-13.1": the change over every pair, when there are several to compare."""
    changes = [get(b) - get(a) for a, b in pairs if is_number(get(a)) and is_number(get(b))]
    if len(changes) < 2:
        return ""
    form = "%+.0f" if integer else "%+.1f"
    return form % min(changes) + ".." + form % max(changes)


class Differences:
    """The rows of the console's --compare table for one layer."""

    def __init__(self, pairs, ranged):
        self.pairs, self.ranged, self.rows = pairs, ranged, []

    def figure(self, name, get, unit, integer=False):
        a, b = get(self.pairs[0][0]), get(self.pairs[0][1])
        show = count if integer else ms
        row = [name, show(a), show(b), delta(a, b, unit) or DASH]
        if self.ranged:
            row.append(change_range(self.pairs, get, integer) or DASH)
        self.rows.append(row)

    def plain(self, name, show):
        row = [name, show(self.pairs[0][0]), show(self.pairs[0][1]), ""]
        self.rows.append(row + [""] if self.ranged else row)


def path(*keys):
    return lambda layer: at(layer, *keys)


def in_phase(name, *keys):
    return lambda layer: at(phase_of(layer, name), *keys)


def differences(label, pairs, ranged, phases):
    t = Differences(pairs, ranged)
    t.rows.append(Group("whole run"))
    t.figure("touch→present p50 ms", path("input_to_present_ms", "p50"), " ms")
    t.figure("touch→present p95 ms", path("input_to_present_ms", "p95"), " ms")
    t.figure("touch event→present p50", path("touch_event_to_present_ms", "p50"), " ms")
    t.figure("touch event→present p95", path("touch_event_to_present_ms", "p95"), " ms")
    t.figure("frames with touch", path("input_to_present_ms", "frames"), "", True)
    t.figure("touch events shown", path("touch_event_to_present_ms", "events"), "", True)
    t.figure("frames queued", path("frames_queued"), "", True)
    t.figure("frames presented", path("frames_presented"), "", True)
    t.figure("janks", path("frame_timeline", "late"), "", True)
    t.figure("jank vsyncs", path("frame_timeline", "late_vsyncs"), "", True)
    for cause in ("app_deadline", "gpu_late", "composition"):
        t.plain(f"  janks: {cause}", lambda l, c=cause: count(at(l, "frame_timeline", "by_cause", c)))
    t.figure("buffer-stuffed frames", path("frame_timeline", "buffer_stuffing", "frames"), "", True)
    t.figure("  stuffed: late p50 ms", path("frame_timeline", "buffer_stuffing", "late_ms_p50"), " ms")
    t.figure("rhythm janks", path("rhythm_janks"), "", True)
    for p in phases:
        name = p.get("name")
        t.rows.append(Group(f"{name} {ms(p.get('from_s'))}-{ms(p.get('to_s'))} s"))
        t.figure("  touch→present p50 ms", in_phase(name, "input_to_present_ms", "p50"), " ms")
        t.figure("  touch→present p95 ms", in_phase(name, "input_to_present_ms", "p95"), " ms")
        t.figure("  touch event p50 ms", in_phase(name, "touch_event_to_present_ms", "p50"), " ms")
        t.figure("  touch event p95 ms", in_phase(name, "touch_event_to_present_ms", "p95"), " ms")
        t.plain("  janks / vsyncs", lambda l, n=name: f"{count(in_phase(n, 'frame_timeline', 'late')(l))} / "
                                                   f"{count(in_phase(n, 'frame_timeline', 'late_vsyncs')(l))}")
        t.figure("  buffer-stuffed frames", in_phase(name, "frame_timeline", "buffer_stuffing", "frames"), "", True)
    t.rows.append(Group("whole run: holds, boosts and fps mode"))
    t.figure("holds", path("holds", "count"), "", True)
    t.plain("hold p50 / p99 ms", lambda l: f"{ms(at(l, 'holds', 'p50_ms'))} / {ms(at(l, 'holds', 'p99_ms'))}")
    t.plain("boosts L1/L2/L3/withdrawn",
            lambda l: "/".join(count(at(l, "boosts", k)) for k in ("level1", "level2", "level3", "withdrawn")))
    t.plain("fps mode (last)", lambda l: count(at(l, "fps_mode")))
    return t.rows


def layer_by_label(summary, label):
    return next((l for l in (summary or {}).get("layers", []) if l.get("label") == label), None)


def compare_sections(c, pictures):
    on, off = c["enabled"], c["disabled"]
    compared = c.get("layer")
    runs = c.get("runs") or []
    own = [(r.get("disabled"), r.get("enabled")) for r in runs if r.get("loop") is None]
    phases = len(own)
    head = ["", "disabled", "enabled", "change"] + ([f"over {phases} vsync phases"] if phases > 1 else [])
    body = facts([("scenario", on.get("scenario", DASH)), ("each run", f"{ms(on.get('duration_s'))} s"),
                  ("clock", on.get("clock", DASH)),
                  ("seed", count(on["seed"]) if "seed" in on else "not in this summary"),
                  ("vsync phases", f"{phases}, on seeds one apart" if phases > 1 else "the scenario's")])
    body += failures(on) + failures(off)
    for l in on.get("layers", []):
        label = l.get("label")
        pairs = own if label == compared and own else [(layer_by_label(off, label), l)]
        body += f"<h3>{esc(label)} ({esc(l.get('package', DASH))}, {esc(l.get('loop', DASH))} loop)</h3>"
        body += table(head, differences(label, pairs, phases > 1, l.get("phases") or []))
        if phases > 1 and label != compared:
            body += note(f"The summary keeps the other vsync phases' figures for {compared} only: "
                         f"no range for {label}.")
    body += "<h3>The run</h3>" + table(["", "disabled", "enabled"], [
        ("scene reports", str(len(off.get("scene_reports") or [])), str(len(on.get("scene_reports") or []))),
        ("boost records", count(at(off, "boosts", "records")), count(at(on, "boosts", "records"))),
        ("log errors", count(off.get("log_errors")), count(on.get("log_errors")))])
    sections = [("differences", "Library disabled against enabled", body)]
    kinds = kinds_section(compared, runs)
    if kinds:
        sections.append(kinds)
    frames = "".join(pictures.show(f"timeline-{run}-{slug(l.get('label'))}")
                     for l in on.get("layers", []) for run in ("disabled", "enabled"))
    frames += pictures.show("latency")
    sections.append(("frames", "Frames", frames or note("no frames files given: nothing drawn")))
    for name, run in (("enabled", on), ("disabled", off)):
        inner = "".join(f"<h3>{esc(title)}</h3>{html_}" for _, title, html_ in run_sections(run, Pictures({})))
        sections.append((f"run-{name}", f"The run with the library {name}",
                         f"<details><summary>every figure of this run</summary>{inner}</details>"))
    return sections


def kinds_section(layer, runs):
    kinds = {}
    for r in runs:
        if r.get("loop") is not None:
            kinds.setdefault(r["loop"], []).append((r.get("disabled"), r.get("enabled")))
    if not kinds:
        return None
    first = next(iter(kinds.values()))
    phases = [None] + [p.get("name") for p in (first[0][1] or {}).get("phases") or []]
    columns = [(("input_to_present_ms", "p50"), False), (("touch_event_to_present_ms", "p50"), False),
               (("touch_event_to_present_ms", "p95"), False), (("frame_timeline", "late"), True),
               (("frame_timeline", "buffer_stuffing", "frames"), True)]
    rows = []
    for option, pairs in kinds.items():
        rows.append(Group(f"{KIND_NAMES.get(option, option)} (--loop {layer}={option})"))
        for phase in phases:
            row = [phase or "whole run"]
            for keys, integer in columns:
                get = in_phase(phase, *keys) if phase else path(*keys)
                show = count if integer else ms
                text = f"{show(get(pairs[0][0]))} → {show(get(pairs[0][1]))}"
                spread = change_range(pairs, get, integer)
                row.append(text + (f" ({spread})" if spread else ""))
            rows.append(row)
    body = note(f"disabled → enabled at the scenario's vsync phase, and the change's range over "
                f"{len(first)} vsync phases")
    body += table(["phase", "per frame p50 ms", "per touch event p50 ms", "per touch event p95 ms", "janks",
                   "buffer-stuffed frames"], rows)
    return ("kinds", f"Kinds of app in {layer}'s place", body)


# ---- sweep --------------------------------------------------------------------------------------

# The recommendation beside the page, for --hints.
HINTS = "hints.json"

SWEEP_HEAD = ["p50 ms", "p95 ms", "janks", "vsyncs", "fps", "boosts L1/L2/L3", "hold p99 ms"]


def sweep_figures(f):
    """A run's figures in SWEEP_HEAD's order, as the console's ranking rounds them."""
    f = f or {}
    return [ms(f.get("p50_ms")), ms(f.get("p95_ms")), count(f.get("late")), count(f.get("late_vsyncs")),
            ms(f.get("presented_fps")), "/".join(count(b) for b in f.get("boosts_by_level") or []) or DASH,
            ms(f.get("hold_p99_ms"))]


def sweep_ranking(sweep):
    rows = []
    for r in sweep.get("runs", []):
        if r.get("failed"):
            rows.append([DASH, ""] + [DASH] * len(SWEEP_HEAD) + [
                "", Raw(f"{esc(r.get('label', DASH))} <span class=fail>failed: {esc(r.get('error', ''))}</span>")])
            continue
        worse = r.get("worse_than_disabled_on") or []
        rows.append([count(r.get("rank")), "*" if r.get("non_dominated") else ""] + sweep_figures(r) +
                    [f"{len(worse)}: {', '.join(worse)}" if worse else "", r.get("label", DASH)])
    return table(["rank", ""] + SWEEP_HEAD + ["worse than disabled on", "setting"], rows)


def seed_args(seed, index):
    """The arguments of the sweep's index-th seed: each one further seed, its vsyncs moved a
    quarter of a period more, as the sweep plays them."""
    phase = index % 4 / 4
    return f"--seed {seed + index}" + (f" --vsync-phase {phase:g}" if phase else "")


def seed_label(seed, index):
    phase = index % 4 / 4
    return f"seed {seed + index}" + (f", vsync phase {phase:g}" if phase else "")


def replay_args(entry, seed, index):
    play = entry.get("play") or ""
    args = seed_args(seed, index)
    return re.sub(r"--seed \d+", args, play, count=1) if "--seed" in play else f"{play} {args}".strip()


def entries_table(sweep):
    seed = sweep.get("seed") if is_number(sweep.get("seed")) else 1
    rows = []
    for e in sweep.get("entries") or []:
        rec, base = e.get("recommended") or {}, e.get("baseline") or {}
        worse = is_number(rec.get("late")) and is_number(base.get("late")) and rec["late"] > base["late"]
        rows += [Group(f"{e.get('name', DASH)} ({e.get('package', DASH)}, layer {e.get('layer', DASH)})"),
                 ["library disabled"] + sweep_figures(base) + [""],
                 ["own setting"] + sweep_figures(e.get("default")) + [""],
                 ["recommended" + (": more janks than disabled" if worse else "")] + sweep_figures(rec) +
                 [rec.get("label", DASH)]]
        rows += [[f"  {seed_label(seed, i)}"] + sweep_figures(f) + [""] for i, f in enumerate(rec.get("per_seed") or [])]
    return table([""] + SWEEP_HEAD + ["setting"], rows)


def pushed_value(axis):
    value = (axis.get("values") or [None])[0]
    if value is None:
        return "none (not pushed)" if "hint" in axis else "none"
    return value if isinstance(value, str) else json.dumps(value, separators=(",", ":"))


def hints_file(recommendation):
    """The recommendation as --recommend writes it, one axis a line."""
    def compact(v):
        return json.dumps(v, separators=(",", ":"), ensure_ascii=False)
    text = "{\n" + "".join(f'  "{k}": {compact(recommendation.get(k))},\n' for k in ("schema", "sweep", "sweep_hash"))
    packages = recommendation.get("packages") or {}
    text += '  "packages": {'
    for i, (name, p) in enumerate(packages.items()):
        text += ("," if i else "") + f"\n    {compact(name)}: {{\n"
        text += "".join(f'      "{k}": {compact(p.get(k))},\n' for k in ("label", "entries", "worse_than_disabled"))
        text += '      "axes": [' + ",".join("\n        " + compact(a) for a in p.get("axes") or []) + "\n      ]\n    }"
    return text + "\n  }\n}\n"


def recommendation_section(sweep):
    rec = sweep.get("recommendation") or {}
    rows = []
    for name, p in (rec.get("packages") or {}).items():
        head = f"{name}: {p.get('label', DASH)}, ranked on {', '.join(p.get('entries') or []) or DASH}"
        rows.append(Group(head + (" (even it leaves an entry worse than disabled)" if p.get("worse_than_disabled")
                                  else "")))
        for a in p.get("axes") or []:
            what = f"hint {a['hint']}" if "hint" in a else f"property {a.get('property', DASH)}"
            rows.append([what, f"{ms(a.get('at_s'), '%g')} s", a.get("text", DASH), pushed_value(a)])
    if not rows:
        return ("recommendation", "Recommendation", note("this summary holds no recommendation"))
    body = note("Per game package, the pushes of its best setting (ranked on its entries), as the service "
                "pushes them; pelyx-sim SCENARIO --hints FILE plays them.")
    body += table(["push", "at", "text", "value"], rows, numbers=False)
    seed = sweep.get("seed") if is_number(sweep.get("seed")) else 1
    replays = []
    for e in sweep.get("entries") or []:
        replays.append(Group(e.get("name", DASH)))
        replays += [(seed_label(seed, i), Raw(f"<code>pelyx-sim {esc(replay_args(e, seed, i))} --hints {HINTS}</code>"))
                    for i in range(len(at(e, "recommended", "per_seed") or [None]))]
    body += "<h3>Reproduce</h3>" + note(
        f"Each entry's arguments with the recommendation ({HINTS}, beside this page) give its recommended "
        "figures of that seed exactly; paths are from the directory the sweep ran in.")
    body += table(["seed", "arguments"], replays, numbers=False)
    body += f"<h3>The hints file (<a href='{HINTS}'>{HINTS}</a>)</h3>" + pre(
        hints_file(rec).splitlines())
    return ("recommendation", "Recommendation", body)


def sweep_sections(sweep, pictures):
    entries = sweep.get("entries") or []
    seeds = sweep.get("seeds")
    body = facts([("sweep", sweep.get("sweep", DASH)), ("scenario", sweep.get("scenario", DASH)),
                  ("layer ranked", sweep.get("layer", DASH)),
                  ("runs", f"{count(sweep.get('settings'))} settings x {len(entries)} "
                           f"{'entry' if len(entries) == 1 else 'entries'} x {count(seeds)} seeds: "
                           f"{count(sweep.get('runs_played'))} runs with each entry's baseline and own setting"),
                  ("seed", f"{count(sweep.get('seed'))}, the vsyncs moved a quarter of a period more each seed"),
                  ("clock", sweep.get("clock", DASH)),
                  ("hashes", f"sweep file {sweep.get('sweep_hash', DASH)}, binary {sweep.get('binary_hash', DASH)}")])
    body += f"<p>ranked: {esc(sweep.get('rule', DASH))}.</p>"
    body += note("Janks, vsyncs and boosts summed over the entries and seeds; p50, p95, fps and hold p99 their "
                 "mean. * no other setting is better on p50, janks and boosts at once. The console's cpu/s "
                 "column is a host figure the summary does not keep.")
    body += sweep_ranking(sweep)
    body += pictures.show("sweep") + pictures.show("sweep-front")
    sections = [("sweep", "Sweep", body)]
    body = note("Recommended: the best setting on the entry's package's entries. Janks summed and p50/p95 "
                "the mean over the seeds; each seed's figures of the recommended setting below it.")
    body += entries_table(sweep) + pictures.show("sweep-entries")
    sections.append(("entries", "Per entry", body))
    sections.append(recommendation_section(sweep))
    return sections


# ---- the page -----------------------------------------------------------------------------------

def write(out, summary, compare, sweep, pictures):
    """Writes OUT/index.html for whatever was given and returns its path."""
    shown = Pictures(pictures)
    sections, titles = [], []
    if summary:
        titles.append(f"run of {summary.get('scenario', DASH)}, library "
                      f"{'enabled' if summary.get('library_enabled') else 'disabled'}")
        sections += run_sections(summary, shown)
    if compare:
        titles.append(f"--compare of {compare['enabled'].get('scenario', DASH)}")
        sections += compare_sections(compare, shown)
    if sweep:
        titles.append(f"sweep {sweep.get('sweep', DASH)}")
        sections += sweep_sections(sweep, shown)
        if at(sweep, "recommendation", "packages"):
            with open(os.path.join(out, HINTS), "w") as f:
                f.write(hints_file(sweep["recommendation"]))
    rest = shown.rest()
    if rest:
        sections.append(("pictures", "Pictures", rest))
    title = "pelyx-sim: " + "; ".join(titles or ["pictures"])
    nav = " ".join(f"<a href='#{esc(i)}'>{esc(h.split(' (')[0])}</a>" for i, h, _ in sections)
    parts = [f"<!doctype html><html lang=en><meta charset=utf-8><title>{esc(title)}</title><style>{STYLE}</style>",
             f"<h1>{esc(title)}</h1><nav>{nav}</nav>"]
    parts += [f"<h2 id='{esc(i)}'>{esc(h)}</h2>{body}" for i, h, body in sections]
    path_ = os.path.join(out, "index.html")
    with open(path_, "w") as f:
        f.write("\n".join(parts) + "\n")
    return path_

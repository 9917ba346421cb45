"""Pictures of a pelyx-sim sweep over several entries (captures or scenarios).

pictures(sweep, out, save) draws, from a sweep summary with two or more "entries":
  - per entry, the recommended setting against the library disabled and the entry's own
    setting: janks, and touch-to-present p50 and p95;
  - the settings over all entries, p50 against janks, the non-dominated set joined and the
    settings that make an entry worse than the library disabled marked.
It returns [(title, path)] as pelyx-report's pages list them.
"""

import matplotlib.pyplot as plt

KINDS = [("baseline", "library disabled", "tab:grey"), ("default", "own setting", "tab:blue"),
         ("recommended", "recommended", "tab:green")]


def entries_figure(sweep):
    entries = sweep["entries"]
    fig, axes = plt.subplots(2, len(entries), figsize=(max(6, 3 * len(entries)), 6.5), squeeze=False)
    for col, entry in enumerate(entries):
        top, bottom = axes[0][col], axes[1][col]
        for i, (key, label, colour) in enumerate(KINDS):
            figures = entry.get(key) or {}
            top.bar(i, figures.get("late", 0), color=colour, label=label)
            p50, p95 = figures.get("p50_ms"), figures.get("p95_ms")
            if p50 is not None:
                bottom.bar(i, p50, color=colour)
            if p95 is not None:
                bottom.plot([i], [p95], marker="v", color="black", markersize=6)
        top.set_title(f"{entry['name']}\n{entry['package']}", fontsize=8)
        for ax in (top, bottom):
            ax.set_xticks(range(len(KINDS)))
            ax.set_xticklabels([label for _, label, _ in KINDS], fontsize=7, rotation=20)
            ax.grid(axis="y", alpha=0.3)
        if not any((entry.get(key) or {}).get("p50_ms") is not None for key, _, _ in KINDS):
            bottom.text(0.5, 0.5, "no touch reached a frame", ha="center", va="center", transform=bottom.transAxes,
                        fontsize=8)
        if col == 0:
            top.set_ylabel("janks (summed over the seeds)")
            bottom.set_ylabel("touch to present ms\n(bar p50, \u25bc p95)")
    fig.suptitle(f"recommended setting per entry against the library disabled and the entry's own setting "
                 f"({sweep.get('seeds', 1)} seeds)", fontsize=10)
    fig.tight_layout()
    return fig


def front_figure(sweep):
    runs = [r for r in sweep["runs"] if not r.get("failed") and r.get("p50_ms") is not None]
    fig, ax = plt.subplots(figsize=(8, 5))
    fine = [r for r in runs if not r.get("worse_than_disabled_on")]
    worse = [r for r in runs if r.get("worse_than_disabled_on")]
    for group, colour, label in ((fine, "tab:grey", "setting"),
                                 (worse, "tab:orange", "setting with more janks than disabled on an entry")):
        if group:
            ax.scatter([r["p50_ms"] for r in group], [r["late"] for r in group], color=colour, s=18, label=label)
    front = sorted((r for r in runs if r.get("non_dominated")), key=lambda r: r["p50_ms"])
    if front:
        ax.plot([r["p50_ms"] for r in front], [r["late"] for r in front], "o-", color="tab:red", fillstyle="none",
                label="non-dominated (p50, janks, boosts)")
    best = next((r for r in runs if r.get("rank") == 1), None)
    if best:
        ax.annotate("#1", (best["p50_ms"], best["late"]), fontsize=9, xytext=(5, 5), textcoords="offset points")
    ax.set_xlabel("touch to present p50, mean over the entries (ms)")
    ax.set_ylabel("janks summed over the entries and seeds")
    ax.set_title(f"{len(runs)} settings over {len(sweep['entries'])} entries")
    ax.legend(fontsize=8)
    ax.grid(alpha=0.3)
    fig.tight_layout()
    return fig


def pictures(sweep, out, save):
    # A sweep of one entry has its picture already (pelyx-report's latency against janks).
    if len(sweep.get("entries") or []) < 2:
        return []
    return [("Sweep: recommended setting per entry", save(entries_figure(sweep), out, "sweep-entries.png")),
            ("Sweep: settings over all entries", save(front_figure(sweep), out, "sweep-front.png"))]

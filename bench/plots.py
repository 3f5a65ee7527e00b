"""Line plots as SVG, with logarithmic or linear axes."""

import collections
import io
import math

import matplotlib
from matplotlib.figure import Figure
from matplotlib.ticker import EngFormatter, FixedLocator, FuncFormatter, NullLocator

# Colours that remain apart for most kinds of colour blindness; and each line has its own mark.
COLOURS = ["#0072b2", "#d55e00", "#009e73", "#b5588f"]
MARKS = ["o", "s", "^", "D"]
STYLE = {
    "svg.fonttype": "none",  # text stays text
    "svg.hashsalt": "solvane",  # the same figures give the same file
    "font.family": "sans-serif",
    "font.size": 12,
    "axes.spines.left": False,
    "axes.spines.right": False,
    "axes.spines.top": False,
    "axes.edgecolor": "#666666",
    "axes.titlesize": 13,
    "axes.titlelocation": "left",
    "xtick.color": "#666666",
    "ytick.color": "#666666",
    "ytick.major.size": 0,
    "grid.color": "#dddddd",
    "legend.frameon": False,
}

duration = EngFormatter(unit="s")  # 0.000002 is 2 µs
short = EngFormatter(sep="")  # 10000 is 10k


def size(number, _):
    """A size's label: 4,096, but 10k."""
    exact = number >= 1000 and number % 100 != 0
    return f"{number:,.0f}" if exact else short(number)


def named(sizes):
    """The sizes whose labels do not touch on a logarithmic axis."""
    sizes = sorted(sizes)
    apart = (sizes[-1] / sizes[0]) ** 0.09
    chosen = sizes[:1]
    for each in sizes[1:]:
        if each >= chosen[-1] * apart:
            chosen.append(each)
    return chosen


Panel = collections.namedtuple(
    "Panel", "title x_name y_name lines is_log_y y_label", defaults=(True, short)
)
Panel.__doc__ = """One plot. lines: (name, [(x, y), ...]) for each line, four at most."""


def fill(axes, panel):
    """Draws a panel."""
    axes.set(title=panel.title, xlabel=panel.x_name, ylabel=panel.y_name, xscale="log")
    for (name, points), colour, mark in zip(panel.lines, COLOURS, MARKS):
        axes.plot(*zip(*sorted(points)), label=name, color=colour, marker=mark, linewidth=2)
    axes.xaxis.set_major_locator(
        FixedLocator(named({x for _, line in panel.lines for x, _ in line}))
    )
    axes.xaxis.set_minor_locator(NullLocator())
    axes.xaxis.set_major_formatter(FuncFormatter(size))
    if panel.is_log_y:
        axes.set_yscale("log")
        axes.yaxis.set_minor_locator(NullLocator())
    else:
        axes.set_ylim(bottom=0)
        axes.locator_params(axis="y", nbins=5)
    axes.yaxis.set_major_formatter(panel.y_label)
    axes.grid(axis="y")
    axes.legend()


def plot(title, panels):
    """An SVG document with the panels, two in a row."""
    rows = math.ceil(len(panels) / 2)
    with matplotlib.rc_context(STYLE):
        figure = Figure(figsize=(11, 4 * rows), layout="constrained")
        figure.get_layout_engine().set(w_pad=0.15, h_pad=0.15)
        for place, panel in enumerate(panels, start=1):
            fill(figure.add_subplot(rows, 2, place), panel)
        svg = io.StringIO()
        figure.savefig(svg, format="svg", metadata={"Title": title, "Date": None, "Creator": None})
        return "\n".join(line.rstrip() for line in svg.getvalue().splitlines()) + "\n"

"""Line plots as SVG, with logarithmic or linear axes."""

import io

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
    "axes.titlesize": 15,
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


def plot(title, x_name, y_name, lines, is_log_y=True, y_label=short):
    """An SVG document.

    lines: (name, [(x, y), ...]) for each line, four at most.
    """
    with matplotlib.rc_context(STYLE):
        figure = Figure(figsize=(8, 5), layout="constrained")
        axes = figure.add_subplot(title=title, xlabel=x_name, ylabel=y_name, xscale="log")
        for (name, points), colour, mark in zip(lines, COLOURS, MARKS):
            axes.plot(*zip(*sorted(points)), label=name, color=colour, marker=mark, linewidth=2)
        axes.xaxis.set_major_locator(
            FixedLocator(sorted({x for _, line in lines for x, _ in line}))
        )
        axes.xaxis.set_minor_locator(NullLocator())
        axes.xaxis.set_major_formatter(FuncFormatter(size))
        if is_log_y:
            axes.set_yscale("log")
            axes.yaxis.set_minor_locator(NullLocator())
        else:
            axes.set_ylim(bottom=0)
            axes.locator_params(axis="y", nbins=5)
        axes.yaxis.set_major_formatter(y_label)
        axes.grid(axis="y")
        axes.legend()
        svg = io.StringIO()
        figure.savefig(svg, format="svg", metadata={"Title": title, "Date": None, "Creator": None})
        return "\n".join(line.rstrip() for line in svg.getvalue().splitlines()) + "\n"

"""Line plots as SVG, with logarithmic or linear axes. Nothing but text is needed to draw them."""

import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 640, 400
LEFT, RIGHT, TOP, BOTTOM = 78, 24, 84, 58
# Colours that remain apart for most kinds of colour blindness; and each line has its own mark.
COLOURS = ["#0072b2", "#d55e00", "#009e73", "#b5588f"]
INK, FAINT, GRID = "#222222", "#666666", "#dddddd"


def short(number):
    """A tick's label: 10000 is 10k, and 4096 is 4,096."""
    if number >= 1000 and number % 100 != 0:
        return f"{number:,.0f}"
    for unit, letter in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if abs(number) >= unit:
            return f"{number / unit:g}{letter}"
    return f"{number:g}"


def duration(seconds):
    """A tick's label: 0.000002 is 2 µs."""
    for unit, name in ((1, "s"), (1e-3, "ms"), (1e-6, "µs"), (1e-9, "ns")):
        if seconds >= unit * 0.999:
            return f"{round(seconds / unit, 9):g} {name}"
    return f"{seconds:g} s"


class Axis:
    """Where a value lies between two ends of the drawing."""

    def __init__(self, values, start, end, is_logarithmic, ticks=None):
        self._is_logarithmic = is_logarithmic
        self._start, self._end = start, end
        low, high = min(values), max(values)
        if is_logarithmic:
            self._low, self._high = math.log10(low), math.log10(high)
            if ticks is None:
                first, last = math.floor(self._low + 1e-9), math.ceil(self._high - 1e-9)
                last = max(last, first + 1)
                self._low, self._high = first, last
                step = math.ceil((last - first) / 7)
                ticks = [10.0**power for power in range(first, last + 1, step)]
        else:
            step = self._step(high / 5)
            ticks = ticks or [step * i for i in range(math.ceil(high / step - 1e-9) + 1)]
            self._low, self._high = 0, max(ticks[-1], high)
        self.ticks = ticks

    @staticmethod
    def _step(least):
        """1, 2 or 5 times a power of ten."""
        power = 10.0 ** math.floor(math.log10(least))
        return next(factor * power for factor in (1, 2, 5, 10) if factor * power >= least * 0.999)

    def at(self, value):
        place = math.log10(value) if self._is_logarithmic else value
        if self._high == self._low:
            return (self._start + self._end) / 2
        share = (place - self._low) / (self._high - self._low)
        return self._start + share * (self._end - self._start)


def text(x, y, words, size=12, anchor="start", colour=INK, turned=False):
    turn = f' transform="rotate(-90 {x:.1f} {y:.1f})"' if turned else ""
    return (
        f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}" '
        f'fill="{colour}"{turn}>{escape(words)}</text>'
    )


def mark(shape, x, y, colour):
    if shape == 0:
        return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>'
    if shape == 1:
        return (
            f'<rect x="{x - 3.2:.1f}" y="{y - 3.2:.1f}" width="6.4" height="6.4" fill="{colour}"/>'
        )
    if shape == 2:
        return f'<path d="M{x:.1f} {y - 4.4:.1f} l4.2 7.4 h-8.4 z" fill="{colour}"/>'
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.2" fill="white" stroke="{colour}" stroke-width="1.8"/>'


def plot(title, x_name, y_name, lines, is_log_x=True, is_log_y=True, x_label=short, y_label=short):
    """An SVG document.

    lines: (name, [(x, y), ...]) for each line, four at most.
    """
    xs = sorted({x for _, points in lines for x, _ in points})
    ys = [y for _, points in lines for _, y in points]
    x = Axis(xs, LEFT, WIDTH - RIGHT, is_log_x, ticks=xs)
    y = Axis(ys, HEIGHT - BOTTOM, TOP, is_log_y)
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
        f'width="{WIDTH}" height="{HEIGHT}" font-family="sans-serif" role="img">',
        f"<title>{escape(title)}</title>",
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
        text(LEFT, 26, title, 15),
    ]
    for tick in y.ticks:
        parts.append(f'<path d="M{LEFT} {y.at(tick):.1f} H{WIDTH - RIGHT}" stroke="{GRID}"/>')
        parts.append(text(LEFT - 8, y.at(tick) + 4, y_label(tick), 11, "end", FAINT))
    for tick in x.ticks:
        parts.append(f'<path d="M{x.at(tick):.1f} {HEIGHT - BOTTOM} v5" stroke="{FAINT}"/>')
        parts.append(text(x.at(tick), HEIGHT - BOTTOM + 19, x_label(tick), 11, "middle", FAINT))
    parts.append(f'<path d="M{LEFT} {HEIGHT - BOTTOM} H{WIDTH - RIGHT}" stroke="{FAINT}"/>')
    parts.append(text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 14, x_name, 12, "middle"))
    parts.append(text(18, (TOP + HEIGHT - BOTTOM) / 2, y_name, 12, "middle", turned=True))

    for number, (name, points) in enumerate(lines):
        colour = COLOURS[number]
        places = [(x.at(size), y.at(value)) for size, value in sorted(points)]
        path = " ".join(
            f"{'L' if i else 'M'}{px:.1f} {py:.1f}" for i, (px, py) in enumerate(places)
        )
        parts.append(f'<path d="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts += [mark(number, px, py, colour) for px, py in places]
        column, rank = number % 2, number // 2
        legend_x, legend_y = LEFT + column * (WIDTH - LEFT) / 2, 48 + rank * 18
        parts.append(mark(number, legend_x + 4, legend_y - 4, colour))
        parts.append(text(legend_x + 14, legend_y, name, 12))
    parts.append("</svg>")
    return "\n".join(parts) + "\n"

"""Draws the ratios of scripts/bench as an SVG picture: a row for each work, the bare call at 1."""

import math
from xml.sax.saxutils import escape

from bench_readings import BARE, LIBRARY

WIDTH = 1000
LEFT, RIGHT = 390, 860
ROW, HEADER, TOP = 18, 30, 92
LOWEST, HIGHEST = 0.1, 20
TICKS = (0.1, 0.2, 0.5, 1, 2, 5, 10, 20)

# The picture brings its own ground, so that it can be read on any page.
STYLE = """
    .ground { fill: #ffffff } .band { fill: #f3f5f8 } text { fill: #1f2733; font: 13px sans-serif }
    .family { font-weight: bold } .title { font: bold 17px sans-serif } .small { font-size: 12px }
    .grid { stroke: #d5dae1 } .one { stroke: #1f2733; stroke-width: 1.5 } .limit { stroke: #d1242f; stroke-width: 2.5 }
    .bar { stroke: #0b62c4; stroke-width: 5 } .library { fill: #0b62c4 }
    .peer { fill: none; stroke: #8a6d1f; stroke-width: 1.4 }
    @media (prefers-color-scheme: dark) {
        .ground { fill: #14181f } .band { fill: #1c222b } text { fill: #dce3ec }
        .grid { stroke: #343c48 } .one { stroke: #dce3ec } .limit { stroke: #ff7b72 }
        .bar { stroke: #58a6ff } .library { fill: #58a6ff } .peer { stroke: #d8b45a }
    }
"""


def place(ratio):
    """Where a ratio is on the axis, which is logarithmic; what is beyond is at its end."""
    ratio = min(max(ratio, LOWEST), HIGHEST)
    return LEFT + (RIGHT - LEFT) * math.log(ratio / LOWEST) / math.log(HIGHEST / LOWEST)


def text(x, y, content, kind="", anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}">{escape(content)}</text>'


def line(x1, y1, x2, y2, kind):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


def dot(x, y):
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="5" class="library"/>'


def peer_mark(way, x, y):
    """A shape for each of the peers."""
    shapes = {
        "std": f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4" class="peer"/>',
        "Boost": f'<rect x="{x - 3.7:.1f}" y="{y - 3.7:.1f}" width="7.4" height="7.4" class="peer"/>',
        "POCO": f'<path d="M{x:.1f} {y - 5:.1f} l4.6 8.4 h-9.2 z" class="peer"/>',
    }
    return shapes.get(way, f'<path d="M{x - 4:.1f} {y - 4:.1f} l8 8 m0 -8 l-8 8" class="peer"/>')


def legend():
    parts = [text(20, 32, "Time, as a multiple of the bare call's", "title")]
    x, y = 20, 60
    for name, mark in (("library", dot(0, 0)), ("at most", line(0, -7, 0, 7, "limit")),
                       *((way, peer_mark(way, 0, 0)) for way in ("std", "Boost", "POCO", "another"))):
        parts.append(f'<g transform="translate({x + 6} {y - 4})">{mark}</g>')
        parts.append(text(x + 17, y, name, "small"))
        x += 84
    parts.append(text(WIDTH - 20, y, "less is better; what is beyond the axis is at its end", "small", "end"))
    return parts


def row(work, y):
    ratio = work.ratio()
    middle = y + ROW / 2
    parts = [text(LEFT - 12, middle + 4.5, work.title, anchor="end")]
    for way in work.ways:
        if way not in (LIBRARY, BARE):
            parts.append(peer_mark(way, place(work.ratio(way)), middle))
    if work.limit is not None and work.limit.measure == "ratio":
        x = place(work.limit.at_most)
        parts.append(line(x, middle - 7, x, middle + 7, "limit"))
    parts.append(line(place(1), middle, place(ratio), middle, "bar"))
    parts.append(dot(place(ratio), middle))
    parts.append(text(WIDTH - 20, middle + 4.5, f"{ratio:.2f}", anchor="end"))
    return parts


def draw(works):
    works = [work for work in works if work.ratio() is not None]
    bands, marks = [], []
    y = TOP
    family = None
    for index, work in enumerate(works):
        if work.family != family:
            family = work.family
            marks.append(text(20, y + HEADER - 9, family[0].upper() + family[1:], "family"))
            y += HEADER
        elif index % 2 == 1:
            bands.append(f'<rect x="12" y="{y}" width="{WIDTH - 24}" height="{ROW}" class="band"/>')
        marks += row(work, y)
        y += ROW
    # The axis lies over the bands and under the marks.
    axis = []
    for tick in TICKS:
        axis.append(line(place(tick), TOP, place(tick), y, "one" if tick == 1 else "grid"))
        axis += [text(place(tick), end, f"{tick:g}", "small", "middle") for end in (TOP - 6, y + 16)]
    height = y + 30
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}">',
        f"<style>{STYLE}</style>", f'<rect width="{WIDTH}" height="{height}" rx="8" class="ground"/>',
        *legend(), *bands, *axis, *marks, "</svg>"]) + "\n"

#!/usr/bin/env python3
"""Draws a time line that the reference host has written as SVG.

  docs/pictures/draw_timeline.py TIMELINE.json >PICTURE.svg

Each thread has rows of spans, one for each depth; trace records are marks at the lower edge of their
span. A name that is longer than its span is cut or, if little would remain, written below the rows,
once for neighbours of the same name, and only for the longest spans. Show a long run in a browser.
"""

import json
import sys
from xml.sax.saxutils import escape

WIDTH = 880.0  # of all the time
MARGIN = 20.0
RIGHT = 50.0  # right of the time, for names that begin near its end
ROW = 26.0
BAR = 22.0
CHARACTER = 6.7
LABEL_ROW = 17.0
LEAST_CUT = 12  # characters of a name that is cut
MOST_OUTSIDE = 10  # names of a thread below its rows
STYLES = """
  text { font-family: Helvetica, Arial, sans-serif; font-size: 12px; fill: #222; }
  .mono { font-family: 'DejaVu Sans Mono', Consolas, Menlo, monospace; font-size: 11px; }
  .label { font-weight: bold; }
  .dim { fill: #666; }
  .ground { fill: #fff; }
  .span { stroke: #777; stroke-width: 0.7; }
  .entry { fill: #bcd9f3; } .host { fill: #f5d9a0; }
  .grid { stroke: #e2e2e2; } .leader { stroke: #999; stroke-width: 0.7; fill: none; }
  .mark { fill: #a33; }
"""


class Span:
    def __init__(self, name, depth, begin):
        self.name = name
        self.depth = depth
        self.begin = begin
        self.end = begin

    def is_entry_point(self):
        return self.name.lower().startswith("mem")


class Thread:
    def __init__(self):
        self.name = ""
        self.open = []
        self.spans = []
        self.marks = []  # time and depth


def read_threads(events):
    threads = {}
    for event in events:
        thread = threads.setdefault(event["tid"], Thread())
        phase = event["ph"]
        if phase == "M":
            thread.name = event["args"]["name"]
        elif phase == "B":
            thread.open.append(Span(event["name"], len(thread.open), event["ts"]))
            thread.spans.append(thread.open[-1])
        elif phase == "E":
            thread.open.pop().end = event["ts"]
        elif phase == "i":
            thread.marks.append((event["ts"], max(len(thread.open) - 1, 0)))
    return threads


def grid_step(length):
    """Microseconds between two lines, of which there are 14 at most: 1, 2 or 5 of a power of ten."""
    power = 1
    while True:
        for step in (power, 2 * power, 5 * power):
            if length / step <= 14:
                return step
        power *= 10


def number(value):
    return f"{value:.1f}".removesuffix(".0")


class Picture:
    def __init__(self, threads):
        spans = [span for thread in threads.values() for span in thread.spans]
        self.start = min(span.begin for span in spans)
        self.length = max(span.end for span in spans) - self.start
        self.threads = threads
        self.body = []
        self.y = MARGIN
        self.unnamed = 0  # spans

    def x(self, time):
        return MARGIN + (time - self.start) * WIDTH / self.length

    def text(self, x, y, style, text):
        self.body.append(
            f'<text x="{number(x)}" y="{number(y)}" class="{style}">{escape(text)}</text>')

    def path(self, data, style):
        self.body.append(f'<path d="{data}" class="{style}"/>')

    def rect(self, x, y, width, height, style):
        self.body.append(f'<rect x="{number(x)}" y="{number(y)}" width="{number(width)}" '
                         f'height="{number(height)}" class="{style}"/>')

    def draw_axis(self):
        step = grid_step(self.length)
        for time in range(0, int(self.length) + 1, step):
            unit = " µs" if time == 0 else ""
            self.text(self.x(self.start + time) + 3, self.y + 10, "mono dim", f"{time:,}{unit}")
        return step

    def draw_grid(self, step, top, bottom):
        lines = [f"M{number(self.x(self.start + time))} {number(top)}V{number(bottom)}"
                 for time in range(0, int(self.length) + 1, step)]
        self.body.insert(0, f'<path d="{"".join(lines)}" class="grid"/>')

    def draw_span(self, span, top):
        """False when the name does not fit."""
        left = self.x(span.begin)
        width = max(self.x(span.end) - left, 1.0)
        y = top + span.depth * ROW
        self.rect(left, y, width, BAR, "span entry" if span.is_entry_point() else "span host")
        with_time = f"{span.name}  {span.end - span.begin:.1f} µs"
        room = int((width - 6) / CHARACTER)
        for text in (with_time, span.name, span.name[:room - 1] + "…"):
            if len(text) <= room and len(text) >= min(LEAST_CUT, len(span.name)):
                self.text(left + 3, y + 14.5, "mono", text)
                return True
        return False

    def draw_outside(self, spans, top, depths):
        """Names below the rows, with a line to each of their spans, the first name lowest."""
        groups = []
        for span in spans:
            if groups and groups[-1][-1].name == span.name and groups[-1][-1].depth == span.depth:
                groups[-1].append(span)
            else:
                groups.append([span])
        groups.sort(key=lambda group: -sum(span.end - span.begin for span in group))
        self.unnamed += sum(len(group) for group in groups[MOST_OUTSIDE:])
        del groups[MOST_OUTSIDE:]
        ends = []  # left end of the last name in each row
        placed = []
        for group in sorted(groups, key=lambda group: -group[0].begin):
            centres = [(self.x(span.begin) + self.x(span.end)) / 2 for span in group]
            text = group[0].name if len(group) == 1 else f"{len(group)} × {group[0].name}"
            left = min(centres[-1] + 4, MARGIN + WIDTH + RIGHT - len(text) * CHARACTER)
            right = left + len(text) * CHARACTER
            row = 0
            while row < len(ends) and right + 8 > ends[row]:
                row += 1
            ends[row:row + 1] = [min(centres[0], left)]
            placed.append((row, left, text, centres, group[0].depth))
        bottom = top + depths * ROW
        for row, left, text, centres, depth in placed:
            y = bottom + row * LABEL_ROW + 12
            for centre in centres:
                self.path(f"M{number(centre)} {number(top + depth * ROW + BAR)}V{number(y - 4)}",
                          "leader")
            self.path(f"M{number(centres[0])} {number(y - 4)}H{number(max(centres[-1], left - 2))}",
                      "leader")
            self.text(left, y, "mono", text)
        return bottom + len(ends) * LABEL_ROW + 6

    def draw_thread(self, thread):
        self.text(MARGIN, self.y + 12, "label", thread.name)
        top = self.y + 20
        depths = 1 + max((span.depth for span in thread.spans), default=0)
        outside = [span for span in thread.spans if not self.draw_span(span, top)]
        for time, depth in thread.marks:
            x = self.x(time)
            y = top + depth * ROW + BAR
            self.path(f"M{number(x)} {number(y - 6)}l3 6h-6z", "mark")
        self.y = self.draw_outside(outside, top, depths) + 10

    def draw_legend(self):
        y = self.y + 8
        x = MARGIN
        for style, text in (("span entry", "an entry point of the library"),
                            ("span host", "a service of the host")):
            self.rect(x, y, 16, 12, style)
            self.text(x + 22, y + 10, "dim", text)
            x += 44 + 6.2 * len(text)
        self.path(f"M{number(x + 8)} {number(y + 3)}l3 6h-6z", "mark")
        self.text(x + 18, y + 10, "dim", "a trace record")
        if self.unnamed:
            self.text(x + 130, y + 10, "dim", f"{self.unnamed} short spans have no name here")
        self.y = y + 14 + MARGIN

    def draw(self, title):
        step = self.draw_axis()
        top = self.y
        self.y += 22
        for _, thread in sorted(self.threads.items()):
            self.draw_thread(thread)
        self.draw_grid(step, top, self.y)
        self.draw_legend()
        width = number(WIDTH + 2 * MARGIN + RIGHT)
        height = number(self.y)
        return "\n".join([
            '<?xml version="1.0" encoding="UTF-8"?>',
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
            f'viewBox="0 0 {width} {height}" role="img" xml:space="preserve">',
            f"<title>{escape(title)}</title>", f"<style>{STYLES}</style>",
            f'<rect width="{width}" height="{height}" class="ground"/>', *self.body, "</svg>"])


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        threads = read_threads(json.load(file))
    print(Picture(threads).draw("The calls of a run on a time line"))


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Draws what the demonstration prints on a terminal as an SVG picture, for README.

usage: scripts/demo-picture.py [OPTION OF demo.sh]... >docs/demo.svg
"""
import html
import os
import pty
import re
import sys

CELL_WIDTH, LINE_HEIGHT, MARGIN, FONT_SIZE = 8.0, 18, 16, 13
CLASS_OF_CODE = {"1": "bold", "2": "dim", "31": "red", "32": "green"}
STYLE = """
    text { font: %dpx 'DejaVu Sans Mono', Menlo, Consolas, monospace; fill: #d8dee9; white-space: pre }
    .bold { font-weight: bold; fill: #ffffff } .dim { fill: #8893a7 } .green { fill: #8fce7a } .red { fill: #e06c75 }
""" % FONT_SIZE


def record(command):
    """What the command writes to a terminal."""
    output = bytearray()

    def read(descriptor):
        data = os.read(descriptor, 4096)
        output.extend(data)
        return data if not data else b"."  # what is shown meanwhile, on standard error

    os.environ.update(TERM="xterm", NO_COLOR="")
    silenced = os.dup(1)
    os.dup2(2, 1)
    try:
        status = pty.spawn(command, read)
    finally:
        os.dup2(silenced, 1)
    if status != 0:
        sys.exit("%s ended with %d:\n%s" % (command[0], status, output.decode()))
    return output.decode().replace("\r\n", "\n")


def spans(line):
    """The line's text in pieces of one colour: (column, class, text)."""
    column, look = 0, ""
    for piece in re.split(r"(\x1b\[\d+m)", line):
        if piece.startswith("\x1b["):
            look = CLASS_OF_CODE.get(piece[2:-1], "")
        elif piece:
            yield column, look, piece
            column += len(piece)


def draw(lines):
    width = max(sum(len(text) for _, _, text in spans(line)) for line in lines) * CELL_WIDTH + 2 * MARGIN
    height = len(lines) * LINE_HEIGHT + 2 * MARGIN
    yield '<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 %d %d">' % (width, height)
    yield "<style>%s</style>" % STYLE
    yield '<rect width="100%" height="100%" rx="8" fill="#1e222a"/>'
    for row, line in enumerate(lines):
        for column, look, text in spans(line):
            yield '<text x="%.1f" y="%d" class="%s" textLength="%.1f" xml:space="preserve">%s</text>' % (
                MARGIN + column * CELL_WIDTH, MARGIN + (row + 1) * LINE_HEIGHT - 4, look, len(text) * CELL_WIDTH,
                html.escape(text))
    yield "</svg>"


demo = os.path.join(os.path.dirname(os.path.abspath(__file__)), "demo.sh")
recorded = record([demo] + sys.argv[1:]).split("\n")
first = recorded.index(next(line for line in recorded if "The road of one request" in line))
print("\n".join(draw(["$ ./scripts/demo.sh", ""] + [line.rstrip() for line in recorded[first:]][:-2])))

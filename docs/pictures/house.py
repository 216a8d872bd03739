#!/usr/bin/env python3
"""Prints house.dot, the picture of the map in SrcRes/README.md: rooms on their floors, and who includes
from whom.

    docs/pictures/house.py >docs/pictures/house.dot

The floors are those that tests/docs/rooms_test.cmake holds the rooms to, the arrows are the include
lines of SrcRes. An arrow that others make up together is left out: pack includes from platform, but also
from base, which does. pictures_test fails when the house has changed and its picture has not.
"""
import collections
import glob
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

# What a room is for, in three words. A room without these ends the script.
PURPOSES = {
    "binding": "the one export,\\nall entry points",
    "pack": "structures as\\nchains of blocks",
    "port": "structures as\\ntext",
    "heap": "standard and\\nenhanced heaps",
    "cell": "cell pools",
    "hash": "hash tables",
    "cat": "concatenation\\nbuffers",
    "sink": "the string sink",
    "process": "process and\\nthread blocks",
    "frame": "enter, trace, fail, leave;\\naccess to the host",
    "base": "bytes and copies:\\npure functions",
    "platform": "systems, processors, compilers",
}

HEAD = """\
// The house of SrcRes, the picture of SrcRes/README.md. docs/pictures/house.py writes this text of the
// include lines; docs/pictures/draw.sh runs that and makes house.svg.
digraph house {
  rankdir=TB; nodesep=0.2; ranksep=0.45; bgcolor=white; pad=0.12; newrank=true; compound=true;
  fontname="Helvetica"; fontsize=12; fontcolor="#222222"; labeljust=l; labelloc=b;
  label="Grey: includes; what follows from two arrows is left out. Orange: includes of what a room of services lends.\\l";
  node [shape=box, style=filled, fillcolor="#ffffff", color="#8895a3", fontname="Helvetica",
        fontsize=11, fontcolor="#222222", margin="0.1,0.06"];
  edge [color="#8895a3", fontname="Helvetica", fontsize=11, fontcolor="#1f5a9c", arrowsize=0.6];

  component [label="A component of the host"];
  vector [label="MEM function vector\\n52 slots, owned by the host", fillcolor="#e6edf4"];
  services [label="RuntimeServices · TraceServices · TextServices\\nowned by the host", fillcolor="#e6edf4"];
"""

TAIL = """
  edge [color="#1f5a9c"];
  component -> vector [label="  call"];
  vector -> {binding} [lhead=cluster_house, label="  each slot is an entry point of a room"];
  {platform} -> services [ltail=cluster_house, label="  storage, gates, tracing, texts"];
}
"""


def floors():
    """Lists of rooms, the lowest floor first."""
    with open(f"{ROOT}/tests/docs/rooms_test.cmake", encoding="utf-8") as test:
        found = re.findall(r"^set\(floor_(\d) ([a-z ]+)\)", test.read(), re.M)
    return [rooms.split() for _, rooms in sorted(found)]


def includes():
    """Room: the rooms that its files include from."""
    rooms = collections.defaultdict(set)
    for path in glob.glob(f"{ROOT}/SrcRes/**/*.*", recursive=True):
        if path.endswith((".h", ".cpp")):
            room = os.path.relpath(path, f"{ROOT}/SrcRes").split(os.sep)[0]
            with open(path, encoding="utf-8") as source:
                for target in re.findall(r'^ *# *include "([a-z]+)/', source.read(), re.M):
                    if target not in (room, "qj7mem00"):
                        rooms[room].add(target)
    return rooms


def reached(room, arrows):
    found = set()
    for target in arrows.get(room, ()):
        found |= {target} | reached(target, arrows)
    return found


def house():
    arrows = includes()
    text = HEAD
    text += '\n  subgraph cluster_house {\n    label="SrcRes"; labelloc=t; style=filled; fillcolor="#f3f6f9"; color="#8895a3"; margin=10;\n'
    for number, rooms in reversed(list(enumerate(floors(), 1))):
        text += f"    // floor {number}\n"
        for room in rooms:
            text += f'    {room} [label="{room}\\n{PURPOSES[room]}"];\n'
        text += f"    {{ rank=same; {' '.join(f'{room};' for room in rooms)} }}\n"
    text += "  }\n\n"
    levels = floors()
    for upper, lower in zip(levels[::-1], levels[-2::-1]):
        # Floors keep their height even where no arrow holds them.
        text += f"  {upper[0]} -> {lower[0]} [style=invis];\n"
    level = {room: number for number, rooms in enumerate(levels) for room in rooms}
    for room in sorted(arrows, key=lambda name: (-level[name], name)):
        indirect = set().union(*(reached(target, arrows) for target in arrows[room]))
        for target in sorted(arrows[room] - indirect):
            # What a service's room lends to one above it.
            lent = " [color=\"#a85b00\"]" if level[target] == 2 else ""
            text += f"  {room} -> {target}{lent};\n"
    return text + TAIL.replace("{binding}", levels[-1][0]).replace("{platform}", levels[0][0])


if __name__ == "__main__":
    sys.stdout.reconfigure(encoding="utf-8", newline="\n")
    sys.stdout.write(house())

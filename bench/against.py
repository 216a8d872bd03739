#!/usr/bin/python3
"""Compares the speed of two builds of the library.

    bench/against.py OLD NEW [--seconds N] [--rows REGEX] PROGRAM…

For each benchmark of the library in the programs (peerbench, workloadbench, …), processes with one
build each run in turns, in random order, for N seconds or five rounds, whichever is longer. The
figure of a build is the upper end of the quickest fifth of its processes, the ratio is new to old,
and the interval holds 90 of 100 ratios of random choices of the same rounds.

Memory pages that the system happens to choose change the time of a process by several percent if its
data fill the caches, and sometimes by half. So the quickest fifth is compared, and every process
loads a copy of its build that is made for it alone: a file that keeps its pages would keep its luck.
"""

import argparse
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import tempfile
import time

LEAST_ROUNDS = 5
CHOICES = 1000  # of rounds, for an interval
BEYOND = 1.03  # a ratio that is pointed out


def existing_file(name):
    path = pathlib.Path(name)
    if not path.is_file():
        raise argparse.ArgumentTypeError(f"{name} is not a file")
    return path


def arguments():
    parser = argparse.ArgumentParser(description="Compares the speed of two builds.")
    parser.add_argument("old", type=existing_file, help="the library to compare with")
    parser.add_argument("new", type=existing_file, help="the library that is measured")
    parser.add_argument("programs", nargs="+", type=existing_file, metavar="program")
    parser.add_argument("--seconds", type=float, default=10, help="for each benchmark")
    parser.add_argument("--rows", type=re.compile, default=re.compile(""), metavar="REGEX",
                        help="only benchmarks whose names contain this")
    return parser.parse_args()


def output_of(program, options, environment=None):
    run = subprocess.run([program, *options], env=environment, text=True, capture_output=True)
    if run.returncode != 0:
        raise SystemExit(f"against.py: {program.name} {' '.join(options)} failed:\n"
                         + (run.stdout + run.stderr).rstrip())
    return run.stdout


def benchmarks(program, wanted):
    """The library's benchmarks under the bench host."""
    for name in output_of(program, ["--benchmark_list_tests"]).splitlines():
        is_peers = program.name == "peerbench" and not name.split("/")[1].startswith("MEM_")
        if not is_peers and "(reference host)" not in name and wanted.search(name):
            yield name


class Turns:
    """Runs single benchmarks of a program with one build or the other."""

    def __init__(self, program, folder):
        self.program = program
        self.folder = pathlib.Path(folder)

    def nanoseconds(self, library, name):
        """None if the benchmark counts bytes, or is too slow to be measured."""
        copy = self.folder / library.name
        shutil.copy(library, copy)
        exactly = "^" + re.sub(r"([][(){}.*+?^$|\\])", r"\\\1", name) + "$"
        made = output_of(self.program, ["--benchmark_format=json", "--benchmark_min_time=0.05",
                                        "--benchmark_filter=" + exactly],
                         os.environ | {"MEM_BENCH_MODULE": str(copy)})
        copy.unlink()
        return json.loads(made)["benchmarks"][0].get("ns")

    def rounds(self, libraries, name, seconds):
        """A list of figures of all libraries for each round; no rounds without figures."""
        end = time.monotonic() + seconds
        made = []
        while len(made) < LEAST_ROUNDS or time.monotonic() < end:
            turn = [None] * len(libraries)
            for place in random.sample(range(len(libraries)), len(libraries)):
                turn[place] = self.nanoseconds(libraries[place], name)
            if None in turn:
                return []
            made.append(turn)
        return made


def figures(rounds):
    """The figure of each build."""
    return [sorted(column)[len(column) // 5] for column in zip(*rounds)]


def ratio(rounds):
    old, new = figures(rounds)
    return new / old


def interval(rounds):
    choices = sorted(ratio(random.choices(rounds, k=len(rounds))) for _ in range(CHOICES))
    return choices[CHOICES // 20], choices[-CHOICES // 20]


def comparisons(given, folder):
    """The name and the rounds of each benchmark."""
    for program in given.programs:
        turns = Turns(program, folder)
        for name in benchmarks(program, given.rows):
            if rounds := turns.rounds([given.old, given.new], name, given.seconds):
                yield name.removesuffix("/manual_time"), rounds


def main():
    given = arguments()
    print("| benchmark | old, ns | new, ns | new / old | interval | rounds |")
    print("|---|--:|--:|--:|---|--:|", flush=True)
    slower = []
    with tempfile.TemporaryDirectory() as folder:
        for name, rounds in comparisons(given, folder):
            old, new = figures(rounds)
            first, last = interval(rounds)
            print(f"| {name} | {old:.4g} | {new:.4g} | {ratio(rounds):.3f} | "
                  f"{first:.3f} to {last:.3f} | {len(rounds)} |", flush=True)
            if first > BEYOND:
                slower.append(name)
    print(f"\nSlower by more than {BEYOND - 1:.0%}, the whole interval: "
          + (", ".join(slower) or "none"))


if __name__ == "__main__":
    main()

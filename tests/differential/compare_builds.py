#!/usr/bin/env python3
"""Compares what two builds of the library do on the same cases.

    compare_builds.py --program REPLAY_CASES OLD NEW [--count N] [--seed N] [--kind KIND]...
                      [--most N] [--new-option OPTION] [--differences FILE] [--examples N]

Both builds run all cases, each in a process of its own, and only digests are compared. Cases whose
digests differ are run again with all that they do written down. They are counted by the first line
that differs, with numbers and addresses left out, and the first of each sort is shown as a diff.
Ends with 0 when all cases are the same, with 1 when some differ, with 2 when a run fails.
"""

import argparse
import collections
import difflib
import itertools
import pathlib
import re
import subprocess
import sys
import tempfile

KINDS = ["graphs", "texts", "mutants", "calls"]
BATCH = 200  # cases that are written down at once
NONE = "(nothing)"


class Runner:
    """Runs cases on both builds at once and returns the two files of results."""

    def __init__(self, arguments, folder):
        self.program = arguments.program
        self.seed = arguments.seed
        self.folder = folder
        self.sides = [("old", arguments.old, []),
                      ("new", arguments.new, [f"--{option}" for option in arguments.new_option])]

    def run(self, kind, *options):
        processes = []
        for side, module, own in self.sides:
            out = self.folder / f"{kind}.{side}"
            command = [self.program, "--module", module, "--kind", kind, "--seed", str(self.seed),
                       "--out", str(out), *own, *options]
            processes.append((out, subprocess.Popen(command)))
        for _, process in processes:
            if process.wait() != 0:
                raise SystemExit(2)
        return [out for out, _ in processes]

    def digests(self, kind, count):
        outs = self.run(kind, "--count", str(count))
        return [out.read_text().splitlines() for out in outs]

    def logs(self, kind, cases):
        """The lines of each case, by number, on the old build and on the new one."""
        numbers = self.folder / "cases"
        numbers.write_text("".join(f"{case}\n" for case in cases))
        outs = self.run(kind, "--cases", str(numbers), "--full")
        return [split_log(out) for out in outs]


def split_log(path):
    logs = {}
    lines = []
    with open(path, encoding="ascii", errors="backslashreplace") as file:
        for line in file:
            if line.startswith("== case "):
                lines = logs[int(line.split()[2])] = []
            else:
                lines.append(line.rstrip("\n"))
    return logs


def differing(old, new):
    if len(old) != len(new):
        raise SystemExit("compare_builds.py: the builds have not run the same cases")
    return [int(one.split()[0]) for one, other in zip(old, new) if one != other]


def called(line):
    """The service of a line that shows a call's result, else None."""
    match = re.match(r"(MEM_\w+)\b.* = -?\d+$", line)
    return match and match[1]


def first_difference(old, new):
    """Call, old line and new line where two logs part."""
    call = "what comes before any call"
    for one, other in itertools.zip_longest(old, new, fillvalue=NONE):
        call = called(one) or called(other) or call
        if one != other:
            return call, one, other
    return call, NONE, NONE


def without_addresses(line):
    line = re.sub(r"0x[0-9a-f]+", "@", line)
    return re.sub(r"\b[0-9A-F]{8,16}\b", "@", line)


def without_numbers(line):
    """A line without what is another in every case; results and codes stay."""
    line = without_addresses(line)
    line = re.sub(r"bytes [0-9a-f]+", "bytes of other contents", line)
    line = re.sub(r"\(\D+SrcRes\D+:\d+\)", "", line)
    if not called(line) and not line.startswith("  error "):
        line = re.sub(r"-?\d+", "#", line)
    return re.sub(r"\([-\d, ]+\)", "(#)", line)[:160]


def in_short(difference):
    """What differences with the same cause have in common: the call and the two lines without
    numbers, as far as that distinguishes them."""
    call, one, other = difference
    one, other = without_numbers(one), without_numbers(other)
    return call, one, other if one != other else "the same with other numbers"


def is_host_call(line):
    return re.match(r"  \w+: \w+\(", line) is not None


def outcomes(log):
    """What is left without host calls and addresses, which move with every call of the host."""
    return [without_addresses(line) for line in log
            if not is_host_call(line) and not line.startswith("    +")]


def sort_of(old, new):
    """The sort of a case: its first difference, and when that is in host calls or addresses, the
    first one in all the rest."""
    first = first_difference(old, new)
    is_outcome = first[1] != NONE and not is_host_call(first[1]) and not is_host_call(first[2])
    if is_outcome and without_addresses(first[1]) != without_addresses(first[2]):
        return in_short(first), None
    return in_short(first), in_short(first_difference(outcomes(old), outcomes(new)))


def show_sort(sort, count, case):
    (call, one, other), rest = sort
    print(f"  {count} x in {call}, for example case {case}\n      old: {one}\n      new: {other}")
    if rest is None:
        return
    if rest[1] == NONE:
        print("      all but host calls and addresses is the same")
    else:
        print(f"      besides host calls and addresses, in {rest[0]}\n"
              f"      old: {rest[1]}\n      new: {rest[2]}")


def show_example(old, new, lines):
    diff = difflib.unified_diff(old, new, "old", "new", n=3, lineterm="")
    for line in itertools.islice(diff, 2, 2 + lines):
        print("        " + line[:200])


def compare(runner, kind, arguments, differences):
    old, new = runner.digests(kind, arguments.count)
    ended = [line for line in old if "ends with" in line]
    cases = differing(old, new)
    print(f"{kind}: {len(old)} cases, {len(cases)} differ "
          f"({len(ended)} end the process on the old build)", flush=True)
    sorts = collections.Counter()
    examples = {}
    looked_at = cases[:arguments.most]
    for start in range(0, len(looked_at), BATCH):
        logs = runner.logs(kind, looked_at[start:start + BATCH])
        for case in looked_at[start:start + BATCH]:
            pair = [side.get(case, [NONE]) for side in logs]
            sort = sort_of(*pair)
            sorts[sort] += 1
            examples.setdefault(sort, (case, pair))
            call, one, other = first_difference(*pair)
            print(f"{kind} {case}: in {call}: {one[:150]} | {other[:150]}", file=differences)
    if len(looked_at) < len(cases):
        print(f"  looked at the first {len(looked_at)} of them")
    for sort, count in sorts.most_common():
        case, pair = examples[sort]
        show_sort(sort, count, case)
        show_example(*pair, arguments.examples)
    return len(cases)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", required=True, help="the program replay_cases")
    parser.add_argument("old")
    parser.add_argument("new")
    parser.add_argument("--count", type=int, default=10000, help="cases of each kind")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--kind", action="append", choices=KINDS)
    parser.add_argument("--most", type=int, default=5000,
                        help="differing cases of a kind that are looked at")
    parser.add_argument("--new-option", action="append", default=[],
                        help="an option of replay_cases for the new build only")
    parser.add_argument("--differences", default="/dev/null",
                        help="a file for one line a differing case")
    parser.add_argument("--examples", type=int, default=20,
                        help="lines of the diff that each sort is shown with")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder, \
            open(arguments.differences, "w", encoding="utf-8") as differences:
        runner = Runner(arguments, pathlib.Path(folder))
        total = sum(compare(runner, kind, arguments, differences)
                    for kind in arguments.kind or KINDS)
    print("no case differs" if total == 0 else f"{total} cases differ")
    sys.exit(0 if total == 0 else 1)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Adds up what gcov counted in a build tree with counters.

usage: coverage.py BUILD FOLDER

FOLDER is a part of the tree, such as components/common/fanctl/source. Prints two lines, "lines REACHED
ALL" and "branches REACHED ALL", then the lines that were not reached. Ways out of a call that only an
exception takes are no branches, and neither is the way on then.
"""
import json
import pathlib
import subprocess
import sys


def decisions(branches):
    """The counts of a line's branches without the pairs that a call has."""
    counts, place = [], 0
    while place < len(branches):
        pair = branches[place:place + 2]
        if any(branch["throw"] for branch in pair):
            place += 2
        else:
            counts.append(pair[0]["count"])
            place += 1
    return counts


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: coverage.py BUILD FOLDER")
    folder = sys.argv[2].rstrip("/") + "/"
    lines, branches = {}, {}
    # What the compiler has left beside each object file: there are no counters of what no test runs.
    for notes in sorted(pathlib.Path(sys.argv[1]).resolve().rglob("*.gcno")):
        result = subprocess.run(["gcov", "--json-format", "--branch-probabilities", "--stdout", notes],
                                capture_output=True, check=True)
        for text in result.stdout.splitlines():
            for file in json.loads(text)["files"]:
                name = file["file"].partition(folder)[2]
                if not name:
                    continue
                for line in file["lines"]:
                    key = (name, line["line_number"])
                    lines[key] = lines.get(key, 0) + line["count"]
                    for number, count in enumerate(decisions(line["branches"])):
                        way = (*key, line.get("function_name"), number)
                        branches[way] = branches.get(way, 0) + count
    for what, counts in (("lines", lines), ("branches", branches)):
        print(what, sum(count > 0 for count in counts.values()), len(counts))
    for name, number in sorted(key for key, count in lines.items() if count == 0):
        print(f"not reached: {name}:{number}")


if __name__ == "__main__":
    main()

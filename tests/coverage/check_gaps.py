#!/usr/bin/env python3
"""Compares what no test executed with the page that gives the reasons.

Usage: check_gaps.py TRACEFILE PAGE

TRACEFILE is gcovr's JSON. PAGE lists functions in the form

    - `platform/linux/Launch.cpp`: `closeOne`, `waitAtGate`

A function with a line or a branch that was not executed, and that PAGE does not list, is printed,
and the exit status is 1. Which listed ones were executed is printed, too: chance decides on some.
"""

import bisect
import json
import re
import sys


def short_name(function):
    """The name of a function without its namespaces, parameters and what it is a template of."""
    name = re.sub(r"\(anonymous namespace\)::|\[abi:\w+\]|\b(platform|status|__gnu_cxx)::", "", function)
    shorter = ""
    while shorter != name:  # the innermost arguments first
        shorter, name = name, re.sub(r"<[^<>]*>", "", name)
    return name.split("(")[0].split()[-1]


def has_gap(line):
    return not line["gcovr/noncode"] and (
        line["count"] == 0 or any(branch["count"] == 0 for branch in line["branches"])
    )


def gaps_of(tracefile):
    """(file, function) of every line that was not executed, or from which a branch was not taken."""
    gaps = set()
    for source in json.load(tracefile)["files"]:
        functions = sorted((entry["lineno"], entry["name"]) for entry in source["functions"])
        begins = [begin for begin, _ in functions]
        for line in filter(has_gap, source["lines"]):
            index = bisect.bisect(begins, line["line_number"]) - 1
            gaps.add((source["file"], short_name(functions[index][1]) if index >= 0 else "(unnamed)"))
    return gaps


def listed_on(page):
    """(file, function) of every function that the page lists."""
    listed = set()
    for item in re.findall(r"^- (`.*?)(?=\n\S|\n\n|\Z)", page.read(), re.MULTILINE | re.DOTALL):
        source, *functions = re.findall(r"`([^`]+)`", item)
        listed.update((source, function) for function in functions)
    return listed


def show(heading, functions):
    for source, function in sorted(functions):
        print(f"{heading}: {source}: {function}")


def main():
    with open(sys.argv[1], encoding="utf-8") as tracefile, open(sys.argv[2], encoding="utf-8") as page:
        gaps, listed = gaps_of(tracefile), listed_on(page)
    show("not executed in full, nor listed in " + sys.argv[2], gaps - listed)
    show("executed in full, though listed", listed - gaps)
    return 1 if gaps - listed else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Which test cases guard which planted faults, from the file `scripts/mutate.sh --kills` writes.

    scripts/guards.py KILLS BUILD_DIR

Prints every test case of the unit and integration programs in BUILD_DIR with the number of faults
it catches and how many of those no other case catches, the cases that catch none, and a small set
of cases that together catch every caught fault (chosen greedily). A fault is tried only against
the programs its line in the mutants file names, so a case is credited only for those faults. A
program that failed without naming a case ("program.*") is listed apart and left out of the set."""
import json
import subprocess
import sys
from collections import defaultdict


def all_cases(build):
    listing = json.loads(subprocess.run(["ctest", "--show-only=json-v1", "-L", "unit|integration"], cwd=build,
                                        capture_output=True, text=True, check=True).stdout)
    programs = [(test["name"], test["command"][0]) for test in listing["tests"]]
    cases = []
    for program, path in programs:
        found = subprocess.run([path, "--gtest_list_tests"], capture_output=True,
                               text=True).stdout
        suite = ""
        for line in found.splitlines():
            if not line.startswith(" "):
                suite = line.split("#")[0].strip().rstrip(".")
            else:
                cases.append(f"{program}.{suite}.{line.split('#')[0].strip()}")
    return cases


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    kills = {}
    for line in open(sys.argv[1]):
        number, _, names = line.rstrip("\n").partition("\t")
        kills[int(number)] = set(names.split())
    catches = defaultdict(set)
    for number, names in kills.items():
        for name in names:
            catches[name].add(number)
    cases = all_cases(sys.argv[2])
    print(f"{len(kills)} caught faults, {len(cases)} test cases")
    for case in sorted(cases, key=lambda c: (len(catches.get(c, ())), c)):
        mine = catches.get(case, set())
        only = sum(1 for n in mine if kills[n] == {case})
        print(f"{len(mine):4d} {only:4d}  {case}")
    crashed = sorted(name for name in catches if name.endswith(".*"))
    if crashed:
        print("programs that failed without naming a case:", " ".join(crashed))
    named = sorted(name for name in catches if not name.endswith(".*"))
    left = {n for n, names in kills.items() if any(not name.endswith(".*") for name in names)}
    unnamed = sorted(set(kills) - left)
    cover = []
    while left:
        best = min(named, key=lambda c: (-len(catches[c] & left), c))  # ties: the first by name
        cover.append(best)
        left -= catches[best]
    print(f"{len(cover)} cases catch every fault that a named case catches"
          f"{f'; faults caught only by a whole program: {unnamed}' if unnamed else ''}:")
    for case in cover:
        print("  ", case)


main()

#!/usr/bin/env python3
"""Counts what a run of ctest proved, from what it left in a build folder.

    scripts/count_tests.py BUILD_FOLDER

Prints "<passed> <failed>" and, on standard error, the name of each failure
with the last lines that its ctest entry printed.
ctest.xml tells how each ctest entry ended, results/<entry>.json the cases of a
GoogleTest program. An entry without such a file counts as one. A case that was
skipped or disabled proved nothing and counts as failed, and so does an entry
that ended badly though none of its cases says so: it crashed, hung, had no
cases, or left its results unwritten.
"""

import json
import pathlib
import sys
import xml.etree.ElementTree

LINES_SHOWN = 40


def cases_of(file):
    """Returns the passed cases and the names of the others in a GoogleTest result file."""
    passed, failed = 0, []
    for suite in json.loads(file.read_text(encoding="utf-8"))["testsuites"]:
        for case in suite["testsuite"]:
            # "result" is COMPLETED, SKIPPED or SUPPRESSED; "status" is RUN or NOTRUN.
            if case["status"] == "RUN" and case["result"] == "COMPLETED" and "failures" not in case:
                passed += 1
            else:
                failed.append(f"{suite['name']}.{case['name']}")
    return passed, failed


def last_lines(entry):
    """Returns the end of what a ctest entry printed."""
    return (entry.findtext("system-out") or "").splitlines()[-LINES_SHOWN:]


def count(build):
    """Returns the number of passed tests, and the names and last lines of failed ones."""
    passed, failed, shown = 0, [], []
    for entry in xml.etree.ElementTree.parse(build / "ctest.xml").getroot().iter("testcase"):
        name, good = entry.get("name"), entry.get("status") == "run"
        results = build / "results" / f"{name}.json"
        try:
            case_passed, case_failed = cases_of(results) if results.exists() else (int(good), [])
            good = good and case_passed + len(case_failed) > 0
        except (ValueError, KeyError):
            case_passed, case_failed, good = 0, [], False
        passed += case_passed
        new = [f"{name}: {case}" for case in case_failed]
        if not good and not case_failed:
            new.append(name)
        if new:
            failed += new
            shown += last_lines(entry) + [f"failed: {one}" for one in new]
    return passed, failed, shown


def main():
    passed, failed, shown = count(pathlib.Path(sys.argv[1]))
    print(*shown, sep="\n", end="\n" if shown else "", file=sys.stderr)
    print(passed, len(failed))


if __name__ == "__main__":
    main()

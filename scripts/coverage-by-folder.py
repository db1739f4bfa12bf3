#!/usr/bin/env python3
"""Line and branch coverage per top folder, from gcovr's --json-summary file."""
import collections
import json
import sys


def percent(covered, total):
    return f"{100.0 * covered / total:5.1f}% ({covered}/{total})" if total else "    -"


def main(path):
    with open(path, encoding="utf-8") as f:
        summary = json.load(f)
    folders = collections.defaultdict(lambda: [0, 0, 0, 0])
    for entry in summary["files"]:
        counts = folders[entry["filename"].split("/")[0]]
        counts[0] += entry["line_covered"]
        counts[1] += entry["line_total"]
        counts[2] += entry["branch_covered"]
        counts[3] += entry["branch_total"]
    rows = sorted(folders.items())
    rows.append(("all", [sum(c[i] for _, c in rows) for i in range(4)]))
    print(f"{'folder':<10} {'lines':<22} branches")
    for name, c in rows:
        print(f"{name:<10} {percent(c[0], c[1]):<22} {percent(c[2], c[3])}")


if __name__ == "__main__":
    main(sys.argv[1])

"""Reads gcov's JSON from standard input and lists the branches of one directory's sources that no test took.

usage: branches.py SOURCES EXEMPT

A template counts once: a branch is taken when any of its instances took it. EXEMPT has a line for each
branch that cannot be taken: "FILE: SOURCE LINE" (as it stands, blanks at its ends aside), and above it its reason.
"""

import json
import os
import sys


def merge(stream, directory):
    """Counts by (file, line, function's own line, number of the branch)."""
    taken = {}
    for text in stream:
        if not text.strip():
            continue
        for unit in json.loads(text)["files"]:
            path = os.path.realpath(os.path.join(directory, unit["file"]))
            if not path.startswith(directory + os.sep):
                continue
            starts = {f["name"]: (f["start_line"], f["start_column"]) for f in unit["functions"]}
            for line in unit["lines"]:
                place = starts.get(line.get("function_name"), (0, 0))
                for number, branch in enumerate(line["branches"]):
                    if not branch["throw"]:
                        key = (path, line["line_number"], place, number)
                        taken[key] = taken.get(key, 0) + branch["count"]
    return taken


def main():
    directory, exempt_path = os.path.realpath(sys.argv[1]), sys.argv[2]
    with open(exempt_path, encoding="utf-8") as file:
        exempt = {line.strip() for line in file if line.strip() and not line.startswith("#")}
    taken = merge(sys.stdin, directory)
    missing, excused = [], set()
    for path, number, _, branch in sorted(key for key, count in taken.items() if count == 0):
        with open(path, encoding="utf-8") as file:
            source = file.read().splitlines()[number - 1].strip()
        name = f"{os.path.relpath(path, directory)}: {source}"
        if name in exempt:
            excused.add(name)
        else:
            missing.append(f"{os.path.relpath(path, directory)}:{number}: branch {branch} not taken: {source}")
    total, hit = len(taken), sum(1 for count in taken.values() if count)
    print(f"branches of the library: {total}, taken {hit} ({100 * hit / max(total, 1):.2f} %)")
    print(f"exempt lines: {len(excused)}, missing branches: {len(missing)}")
    for text in missing + [f"exempt, and taken or gone: {name}" for name in sorted(exempt - excused)]:
        print(text)
    return 1 if missing or not total else 0


if __name__ == "__main__":
    sys.exit(main())

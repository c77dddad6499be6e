#!/usr/bin/python3
"""Checks what a compiler does not: the layers, the list of classes, the sentences above the tests, the lengths, the format.

Run from anywhere; prints each finding and exits with 1 when there is one.
"""
import pathlib
import re
import shutil
import subprocess
import sys

import behaviours

ROOT = pathlib.Path(__file__).resolve().parent.parent
LONGEST_SOURCE = 500  # lines
LONGEST_HEADER = 230
# The headers of a request carry the accepted terms of use, which are themselves asked for.
KNOWN_CIRCLE = {"NetworkHelper", "CTouImpl"}


def layers():
    """The classes of src/README.md by layer: {class: (layer number, layer name)}."""
    result = {}
    number, name = -1, ""
    for line in (ROOT / "src/README.md").read_text().splitlines():
        if line.startswith("## "):
            number, name = number + 1, line[3:]
        row = re.match(r"\| `([\w.]+)` \|", line)
        if row:
            result[row.group(1).replace(".cpp", "")] = (number, name)
    return result


def check_classes(listed):
    present = {path.stem for path in (ROOT / "src").glob("*.h")} | {"main"}
    for missing in sorted(present - set(listed)):
        yield f"src/README.md does not list {missing}"
    for gone in sorted(set(listed) - present):
        yield f"src/README.md lists {gone}, which is not there"
    for header in sorted(present - {"main"}):
        if not [*(ROOT / "tests/unit").glob(f"{header}_test.cpp"),
                *(ROOT / "tests/unit").glob(f"{header}_*_test.cpp")]:
            yield f"{header} has no test file"


def check_layers(listed):
    for path in sorted((ROOT / "src").glob("*.[hc]*")):
        own = listed.get(path.stem)
        for included in includes_of(path):
            other = listed.get(included)
            if own and other and other[0] > own[0]:
                yield f"{path.name} ({own[1]}) includes {included}.h ({other[1]})"


def check_wrapped_libraries():
    """Third-party headers stay in the classes that wrap them."""
    allowed = {
        "sqlite3.h": {"DB", "EventPruner", "EventSet", "EventTable", "FilesTable", "SqlConnection",
                      "SqlFiles", "SqlResult", "SqlStatement", "StoreRescue", "StoreSchema"},
        "curl/curl.h": {"NetworkHelper"},
        "jansson.h": {"JsonObject", "JsonText"},  # its users see JSON's integer type through it
        "aws/": {"AwsWrapperImpl", "Credentials", "SkewRetryStrategy"},
    }
    for path in sorted((ROOT / "src").glob("*.[hc]*")):
        for header in re.findall(r"^#include <([^>]+)>", path.read_text(), re.M):
            for pattern, classes in allowed.items():
                if header.startswith(pattern) and path.stem not in classes:
                    yield f"{path.name} includes <{header}>"


def check_behaviours():
    """Each test says in a sentence above it which behaviour it proves."""
    for test in behaviours.all_tests():
        if not test.sentences:
            yield f"{test.path.relative_to(ROOT)}:{test.line}: {test.name} has no sentence above it"


def check_lengths():
    """No source is longer than a reader can hold."""
    for folder in ("src", "awslite", "tools", "localcloud", "bench", "faults"):
        for path in sorted((ROOT / folder).glob("**/*")):
            if path.suffix in (".h", ".cpp", ".c", ".py") and path.is_file():
                count = len(path.read_text().splitlines())
                longest = LONGEST_HEADER if path.suffix == ".h" else LONGEST_SOURCE
                if count > longest:
                    yield f"{path.relative_to(ROOT)} has {count} lines, more than {longest}"


def includes_of(path):
    return re.findall(r'^#include "(\w+)\.h"', path.read_text(), re.M)


def check_circles():
    """No class needs, by the includes of its two files, one that needs it; but for the named."""
    needs = {}
    for path in sorted((ROOT / "src").glob("*.[hc]*")):
        needs.setdefault(path.stem, set()).update(
            name for name in includes_of(path) if name != path.stem)

    def reachable(start):
        found, waiting = set(), [start]
        while waiting:
            for name in needs.get(waiting.pop(), ()):
                if name not in found:
                    found.add(name)
                    waiting.append(name)
        return found

    for name in sorted(needs):
        circle = {other for other in reachable(name) if name in reachable(other)}
        if circle and not circle <= KNOWN_CIRCLE:
            yield f"{name} is in a circle of includes: {', '.join(sorted(circle))}"


def check_format():
    tool = shutil.which("clang-format-14") or shutil.which("clang-format")
    if not tool:
        yield "clang-format is not installed"
        return
    sources = [str(path) for folder in ("src", "awslite", "tools", "tests", "bench")
               for path in sorted((ROOT / folder).glob("**/*.[hc]*"))
               if path.suffix in (".h", ".cpp")]
    result = subprocess.run([tool, "--dry-run", "-Werror", *sources], capture_output=True, text=True)
    for line in result.stderr.splitlines():
        if "error:" in line:
            yield line.replace(str(ROOT) + "/", "")


def main():
    listed = layers()
    findings = [*check_classes(listed), *check_layers(listed), *check_wrapped_libraries(),
                *check_circles(), *check_lengths(),
                *check_behaviours(), *check_format()]
    for finding in findings:
        print(finding)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())

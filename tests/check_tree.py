#!/usr/bin/python3
"""Checks what a compiler does not: the layers, the lists of classes and behaviours, the format.

Run from anywhere; prints each finding and exits with 1 when there is one.
"""
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent


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
        if not list((ROOT / "tests").glob(f"{header}*_test.cpp")):
            yield f"{header} has no test file"


def check_layers(listed):
    for path in sorted((ROOT / "src").glob("*.[hc]*")):
        own = listed.get(path.stem)
        for included in re.findall(r'^#include "(\w+)\.h"', path.read_text(), re.M):
            other = listed.get(included)
            if own and other and other[0] > own[0]:
                yield f"{path.name} ({own[1]}) includes {included}.h ({other[1]})"


def check_wrapped_libraries():
    """Third-party headers stay in the classes that wrap them."""
    allowed = {
        "sqlite3.h": {"DB", "EventPruner", "EventSet", "SqlStatement"},
        "curl/curl.h": {"NetworkHelper"},
        "jansson.h": {"JsonObject"},
        "aws/": {"AwsWrapperImpl", "Credentials"},
    }
    for path in sorted((ROOT / "src").glob("*.[hc]*")):
        for header in re.findall(r"^#include <([^>]+)>", path.read_text(), re.M):
            for pattern, classes in allowed.items():
                if header.startswith(pattern) and path.stem not in classes:
                    yield f"{path.name} includes <{header}>"


def test_names():
    names = set()
    for path in (ROOT / "tests").glob("**/*_test.cpp"):
        for suite, name in re.findall(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", path.read_text(), re.M):
            names.add(f"{suite}.{name}")
    for path in (ROOT / "tests").glob("**/*_test.py"):
        text = path.read_text()
        for match in re.finditer(r"^class (\w+)\(|^    def (test_\w+)\(", text, re.M):
            if match.group(1):
                owner = match.group(1)
            else:
                names.add(f"{owner}.{match.group(2)}")
    return names


def check_behaviours():
    path = ROOT / "docs/behaviours.md"
    known = test_names()
    named = re.findall(r"`(\w+\.\w+)`", path.read_text()) if path.exists() else []
    if not named:
        yield "docs/behaviours.md names no test"
    for name in sorted(set(named) - known):
        yield f"docs/behaviours.md names {name}, which is no test"


def check_format():
    tool = shutil.which("clang-format-14") or shutil.which("clang-format")
    if not tool:
        yield "clang-format is not installed"
        return
    sources = [str(path) for folder in ("src", "awslite", "tools", "tests", "bench", "fuzz")
               for path in sorted((ROOT / folder).glob("**/*.[hc]*"))
               if path.suffix in (".h", ".cpp")]
    result = subprocess.run([tool, "--dry-run", "-Werror", *sources], capture_output=True, text=True)
    for line in result.stderr.splitlines():
        if "error:" in line:
            yield line.replace(str(ROOT) + "/", "")


def main():
    listed = layers()
    findings = [*check_classes(listed), *check_layers(listed), *check_wrapped_libraries(),
                *check_behaviours(), *check_format()]
    for finding in findings:
        print(finding)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())

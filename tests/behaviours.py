#!/usr/bin/python3
"""Lists every promised behaviour and the tests that prove it, made from the tests themselves.

    tests/behaviours.py                 the list, as Markdown
    tests/behaviours.py WORD ...        only behaviours and tests that contain all the words
    tests/behaviours.py --check         names the tests without a sentence; exits 1 if there is one

The sentence stands above its test, in C++ after "///", in Python after "#:"; an empty comment line
divides two sentences. Tests that share a sentence prove it together.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
TESTS = ROOT / "tests"
OTHER_GROUPS = {"awslite": "Cloud client", "tools": "Tools", "e2e": "Whole program"}


class Test:
    """One test: its name, the class or part that it belongs to, and its sentences."""

    def __init__(self, path, line, name, sentences):
        self.path, self.line, self.name, self.sentences = path, line, name, sentences
        folder = path.relative_to(TESTS).parts[0]
        self.group = OTHER_GROUPS.get(folder) or path.stem.split("_")[0]


def sentences_above(lines, index, mark):
    """The sentences of the comment that ends above lines[index]."""
    block = []
    while index > 0 and re.match(rf"\s*({re.escape(mark)}|@)", lines[index - 1]):
        index -= 1
        text = lines[index].strip()
        if not text.startswith("@"):
            block.insert(0, text[len(mark):].strip())
    paragraphs = "\n".join(block).split("\n\n")
    return [" ".join(paragraph.split()) for paragraph in paragraphs if paragraph.strip()]


def cpp_tests(path):
    lines = path.read_text().splitlines()
    for index, line in enumerate(lines):
        if re.match(r"TEST(_F|_P)?\(", line):
            suite, name = re.match(r"TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)",
                                   " ".join(lines[index:index + 3])).groups()
            yield Test(path, index + 1, f"{suite}.{name}", sentences_above(lines, index, "///"))


def python_tests(path):
    lines = path.read_text().splitlines()
    owner = ""
    for index, line in enumerate(lines):
        if match := re.match(r"class (\w+)\(", line):
            owner = match.group(1)
        if match := re.match(r"    def (test_\w+)\(", line):
            yield Test(path, index + 1, f"{owner}.{match.group(1)}",
                       sentences_above(lines, index, "#:"))


def all_tests():
    for path in sorted(TESTS.glob("**/*_test.cpp")):
        yield from cpp_tests(path)
    for path in sorted(TESTS.glob("**/*_test.py")):
        yield from python_tests(path)


def groups_in_reading_order(tests):
    """The groups: classes in the order of src/README.md, then everything else."""
    classes = re.findall(r"^\| `([\w.]+)` \|", (ROOT / "src/README.md").read_text(), re.M)
    present = {test.group for test in tests}
    others = sorted(present - set(classes) - set(OTHER_GROUPS.values()))
    return [name for name in [*classes, *OTHER_GROUPS.values(), *others] if name in present]


def behaviours(tests, group):
    """{sentence: its tests} of one group, in the order of the tests."""
    result = {}
    for test in tests:
        if test.group == group:
            for sentence in test.sentences:
                result.setdefault(sentence, []).append(test)
    return result


def check(tests):
    """Names the tests without a sentence. Returns the exit status."""
    silent = [test for test in tests if not test.sentences]
    for test in silent:
        print(f"{test.path.relative_to(ROOT)}:{test.line}: {test.name} has no sentence above it")
    return 1 if silent else 0


def main():
    if sys.argv[1:] == ["--check"]:
        return check(all_tests())
    words = [word.lower() for word in sys.argv[1:]]
    tests = list(all_tests())
    for group in groups_in_reading_order(tests):
        rows = []
        for sentence, proofs in behaviours(tests, group).items():
            row = f"- {sentence} ({', '.join(f'`{test.name}`' for test in proofs)})"
            if all(word in f"{group} {row}".lower() for word in words):
                rows.append(row)
        if rows:
            print(f"## {group}\n", *rows, "", sep="\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())

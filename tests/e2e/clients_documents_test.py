#!/usr/bin/python3
"""The examples of the documents for producers, run as they stand there, against a real daemon."""
import re
import unittest

from clients import Clients
from harness import ROOT, WholeProgramTest

DOCUMENTS = ("docs/clients-c.md", "docs/clients-python.md", "docs/event-message.md")
COMPILE = {"c": "cc -std=c99 -Wall -Wextra -Wpedantic -Werror program.c",
           "cpp": "c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror program.cpp"}
RUN = {"c": "./program", "cpp": "./program", "python": "/usr/bin/python3 program.python",
       "sh": "sh -e program.sh"}


def examples(document):
    """(language, text) of each block in one of the languages, in order."""
    return re.findall(r"^```(c|cpp|python|sh)\n(.*?)^```$", (ROOT / document).read_text(),
                      re.M | re.S)


class DocumentsTest(WholeProgramTest):
    #: what is stored stays there
    configuration = {"upload_events": {"min-size": 100000, "max-delay": 3500}}

    def setUp(self):
        super().setUp()
        self.clients = Clients(self.folder / "clients")
        self.events = 0

    def run_example(self, language, text):
        (self.folder / f"program.{language}").write_text(text)
        if language in COMPILE:
            self.clients.shell(f"{COMPILE[language]} -o program "
                               "$(pkg-config --cflags --libs kivevent)", self.folder)
        return self.clients.shell(RUN[language], self.folder)

    def new_events(self, count):
        """The events that came to the store since the last call."""
        events = self.device.wait_for_stored(self.events + count)[self.events:]
        self.events += count
        return [(event["event-type"], event["data"]) for event in events]

    #: Every example of the documents for shell, C, C++ and Python compiles without a warning, runs
    #: as it stands, complains of nothing, and its events are stored.
    def test_examples_post_their_events(self):
        self.start_with_consent()
        epg, hello = ("usage.epg", {"channel": 5}), {"name": 'Say "hello"', "seconds": 42}
        guide = ("usage.app", {"name": "guide"})
        expected = {
            "docs/clients-c.md": [[epg], [epg], [("usage.app", hello)], [guide] * 3,
                                  [("usage.app", {"name": "guide", "level": 0.5})]],
            "docs/clients-python.md": [[epg], [("usage.app", hello)], [guide]],
            "docs/event-message.md": [[epg]],
        }
        for document in DOCUMENTS:
            found = examples(document)
            self.assertEqual(len(found), len(expected[document]), document)
            for (language, text), events in zip(found, expected[document]):
                self.run_example(language, text)
                self.assertEqual(self.new_events(len(events)), events, text)

    #: Both documents begin with an example, of six lines at most inside its function or `with`.
    def test_documents_begin_with_a_short_example(self):
        for document in DOCUMENTS[:2]:
            text = (ROOT / document).read_text().split("\n", 2)[2]
            self.assertRegex(text, r"^```(c|python)\n(.*\n){1,7}?```\n")

    #: What the examples say about refused events is what the library says.
    def test_examples_show_what_is_said_of_a_quote(self):
        self.start_with_consent()
        (last,) = [text for language, text in examples("docs/clients-c.md")
                   if language == "cpp" and "it's" in text]
        said = self.run_example("cpp", last)
        self.assertIn("// " + said, last)
        (python,) = [text for _, text in examples("docs/clients-python.md") if "it's" in text]
        self.assertEqual(self.run_example("python", python),
                         "never: single quote in the event: kivApp cannot store it\n")


if __name__ == "__main__":
    unittest.main()

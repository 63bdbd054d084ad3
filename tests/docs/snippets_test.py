"""Every piece of host-language code in the documents is done by a test of its name in
tests/guide_test.mm, line by line. What else the guide claims names the test that saw it, there or in
one of the other tests/guide_*_test.mm."""

import re
import unittest

import hostlanguage
import markdown
import registered

TEST = re.compile(r"^TEST_P\(Guide\w*, (\w+)\) \{\n(.*?)^\}", re.MULTILINE | re.DOTALL)
QUOTED = re.compile(r"^\s*// \| (.*)$")
SOURCE = "tests/guide_test.mm"
SOURCES = [SOURCE, "tests/guide_claims_test.mm", "tests/guide_publishing_test.mm"]


def camel(marker):
    return "".join(word.capitalize() for word in marker.split("-"))


def tests():
    return dict(test for source in SOURCES for test in TEST.findall(markdown.read(source)))


def quoted(body):
    """[[line of the guide, what stands below it]]"""
    found = []
    for line in body.splitlines():
        quote = QUOTED.match(line)
        if quote:
            found.append([quote[1], ""])
        elif found:
            found[-1][1] += line + "\n"
    return found


def snippets():
    """{name: lines}, from all documents."""
    found = {}
    for document in markdown.documents():
        for fence in markdown.split(document.read_text(encoding="utf-8"))[1]:
            if fence.language != "xojo":
                continue
            where = f"{document.relative_to(markdown.ROOT)}:{fence.number}"
            marker = re.fullmatch(r"snippet: ([a-z-]+)", fence.marker or "")
            if not marker:
                raise AssertionError(f"{where}: no <!-- snippet: name --> in the line before")
            lines = [line for line in map(hostlanguage.code, fence.lines) if line]
            if found.setdefault(marker[1], lines) != lines:
                raise AssertionError(f"{where}: another snippet {marker[1]}; a second one repeats the first")
    return found


class Snippets(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.registered = registered.read()
        cls.snippets = snippets()
        cls.tests = tests()

    def test_have_a_test_that_follows_them_line_by_line(self):
        self.assertGreater(len(self.snippets), 20)
        for name, lines in self.snippets.items():
            self.assertIn(camel(name), self.tests, f"{SOURCE} has no test for the snippet {name}")
            self.assertEqual([line for line, _ in quoted(self.tests[camel(name)])], lines, name)

    def test_are_all_that_tests_follow(self):
        names = {camel(name) for name in self.snippets}
        for name, body in self.tests.items():
            self.assertTrue(name in names or not quoted(body), f"{name} follows no snippet")

    def test_do_in_the_test_what_they_say(self):
        """Whatever of the plug-in stands in a line stands below it, too."""
        names = {each.name for each in self.registered} | {each.owner for each in self.registered}
        names |= {"MyUpdater", "MyComparison"}
        constants = {each.name for each in self.registered if each.table == "constant"}
        events = {each.name for each in self.registered if each.table == "event"}
        counted = 0
        for snippet in self.snippets:
            for line, below in quoted(self.tests[camel(snippet)]):
                text = hostlanguage.without_texts(line)
                wanted = re.findall(r"(?:\.|\bnew )(\w+)", text)
                wanted += [word for word in re.findall(r"^(?:Sub|Function) (\w+)", text) if word in events]
                wanted += [word for word in re.findall(r"\w+", text) if word in constants]
                for word in names.intersection(wanted):
                    counted += 1
                    self.assertRegex(below, rf"\b{word}\b", f"{snippet}: {line}")
                self.assertRegex(below, r"[\w{}]", f"{snippet}: nothing is done for {line}")
        self.assertGreater(counted, 40)

    def test_are_whole(self):
        for name, lines in self.snippets.items():
            self.assertIsNone(hostlanguage.balance_problem(lines), name)

    def test_name_properties_that_the_guide_lists(self):
        guide = markdown.read("docs/guide.md")
        rows = "".join(line for line in guide.splitlines() if line.startswith("| `m"))
        used = re.findall(r"\bm[A-Z]\w*", "\n".join(hostlanguage.without_texts(line)
                                                     for lines in self.snippets.values() for line in lines))
        self.assertEqual(set(re.findall(r"`(m\w+)(?:\(\))? As \w+`", rows)), set(used))

    def test_show_every_event_with_its_exact_parameters(self):
        events = {each.name: each for each in self.registered if each.table == "event"}
        shown = []
        for name, lines in self.snippets.items():
            signature = hostlanguage.signature(lines[0])
            if signature and signature.name in events:
                shown.append(signature.name)
                self.assertIsNone(hostlanguage.event_problem(signature, events[signature.name]), name)
        self.assertCountEqual(shown, events)


class Claims(unittest.TestCase):
    def test_name_the_tests_that_saw_them(self):
        proofs = re.findall(r"<!-- proof: (\w+) -->", markdown.read("docs/guide.md"))
        self.assertGreater(len(proofs), 10)
        self.assertEqual([name for name in proofs if name not in tests()], [])

    def test_stand_under_every_mistake(self):
        guide = markdown.read("docs/guide.md")
        mistakes = guide[guide.index("\n## Common mistakes"):]
        mistakes = mistakes[:mistakes.index("\n## Before")]
        for part in mistakes.split("\n### ")[1:]:
            self.assertRegex(part, r"^.*\n\n<!-- proof: \w+ -->\n", part.splitlines()[0])

    def test_are_all_told(self):
        """No test of the guide is without its place in it."""
        guide = markdown.read("docs/guide.md")
        told = {camel(name) for name in snippets()} | set(re.findall(r"<!-- proof: (\w+) -->", guide))
        self.assertEqual(set(tests()) - told, set())


if __name__ == "__main__":
    unittest.main()

"""docs/reference.md says what the plug-in registers: every declaration once, in its class's section,
with the exact text, and no other."""

import collections
import re
import unittest

import markdown
import registered

KINDS = {"Methods": "method", "Shared methods": "shared method", "Properties": "property",
         "Events": "event", "Constants": "constant"}
TABLE_ROW = re.compile(r"\| `(\w+)` \| (the main thread|the thread that asks) \|")


def entries(text):
    """[(class, table, declaration, body)], as the headings have it."""
    found, owner, table, lines = [], None, None, []
    by_number = {heading.number: heading for heading in markdown.headings(text)}
    for number, line in markdown.split(text)[0]:
        heading = by_number.get(number)
        if heading and heading.level == 2:
            owner, table, lines = heading.text, None, []
        elif heading and heading.level == 3:
            table, lines = heading.text, []
        elif heading and heading.level == 4:
            code = re.fullmatch(r"`(.+)`", heading.text)
            lines = []
            found.append((owner, KINDS.get(table, table), code[1] if code else heading.text, lines))
        else:
            lines.append(line)
    return [(owner, table, text, "\n".join(lines)) for owner, table, text, lines in found]


class Reference(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.registered = registered.read()
        cls.entries = entries(markdown.read("docs/reference.md"))
        cls.body = {(owner, table, text): body for owner, table, text, body in cls.entries}

    def described(self):
        for each in self.registered:
            yield each, self.body.get((each.owner, each.table, each.text), "")

    def labels(self, body):
        return re.findall(r"^- (Answers|Answers nothing|Answer|Thread|Raises): ", body, re.MULTILINE)

    def test_holds_every_declaration_once_and_no_other(self):
        self.assertGreater(len(self.registered), 50)
        self.assertEqual(collections.Counter((owner, table, text) for owner, table, text, _ in self.entries),
                         collections.Counter((each.owner, each.table, each.text) for each in self.registered))

    def test_has_a_section_for_each_class_and_no_other(self):
        sections = [heading.text for heading in markdown.headings(markdown.read("docs/reference.md"))
                    if heading.level == 2]
        self.assertCountEqual(sections, {each.owner for each in self.registered})

    def test_says_what_can_be_assigned(self):
        for each, body in self.described():
            if "method" in each.table:
                self.assertEqual("Assignable." in body, each.assignable, each.text)

    def test_says_of_each_member_what_it_answers_its_thread_and_its_exceptions(self):
        for each, body in self.described():
            expected = {
                "event": (["Thread"] + (["Answer"] if each.result else [])),
                "constant": [],
            }.get(each.table, (["Answers", "Answers nothing"] if each.result else []) + ["Thread", "Raises"])
            if each.name == "_exception":
                expected.remove("Answers")
            self.assertEqual(self.labels(body), expected, f"{each.owner}: {each.text}")

    def test_agrees_with_the_table_of_threads(self):
        threads = dict(TABLE_ROW.findall(markdown.read("docs/threads.md")))
        events = [(each, body) for each, body in self.described() if each.table == "event"]
        self.assertCountEqual(threads, [each.name for each, _ in events])
        for each, body in events:
            self.assertIn(f"- Thread: {threads[each.name]}.", body, each.text)


if __name__ == "__main__":
    unittest.main()

"""docs/threads.md and its picture against what was recorded of the framework: tests/traces."""

import re
import unittest
import xml.etree.ElementTree

import markdown
import registered

VERSIONS = ["1.5b6", "1.6"]
RECORDINGS = markdown.ROOT / "tests/traces"
LINE = re.compile(r"(main|worker \d+) +(call|ret|EVENT) (?:\w+\.)?(\w+)")
SVG = "{http://www.w3.org/2000/svg}"


def steps(path):
    """[(thread, "call", "ret" or "EVENT", name)] of a recording."""
    return [match.groups() for match in map(LINE.match, path.read_text(encoding="utf-8").splitlines()) if match]


def recorded(version):
    """{event: threads on which it came}, over all recordings."""
    threads = {}
    for path in sorted((RECORDINGS / version).glob("*.txt")):
        inside = []
        for thread, kind, name in steps(path):
            where = "main" if thread == "main" else "installer"
            if kind == "call" and name == "InvokeUpdate":
                inside.append(name)
            elif kind == "ret" and name == "InvokeUpdate":
                inside.pop()
            elif kind == "EVENT":
                if inside and name == "pathToRelaunchForUpdater":
                    where = "where `InvokeUpdate` is called"
                threads.setdefault(name, set()).add(where)
    return threads


def table():
    """{event: (comes on, {version: threads})}"""
    rows = {}
    for number, line in markdown.split(markdown.read("docs/threads.md"))[0]:
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if line.startswith("| `") and len(cells) == 4:
            raised = [set(re.split(r", (?:or )?", cell)) for cell in cells[2:]]
            rows[cells[0].strip("`")] = (cells[1], dict(zip(VERSIONS, raised)))
    return rows


class Threads(unittest.TestCase):
    maxDiff = None

    def test_table_has_every_event_once(self):
        events = [each.name for each in registered.read() if each.table == "event"]
        self.assertCountEqual(table(), events)

    def test_table_is_what_was_recorded(self):
        for version in VERSIONS:
            told = {name: raised[version] for name, (_, raised) in table().items()}
            self.assertEqual(told, recorded(version), version)

    def test_picture_is_what_was_recorded(self):
        """One update whose relaunch is postponed, from top to bottom, thread by thread."""
        picture = xml.etree.ElementTree.parse(markdown.ROOT / "docs/threads.svg").getroot()
        columns = {}  # head of the lane: its x
        for text in picture.iter(SVG + "text"):
            if text.get("class") == "head" and "thread" in text.text:
                columns[int(text.get("x"))] = "main" if text.text.startswith("main") else "installer"
        for version in VERSIONS:
            group = picture.find(f".//*[@id='framework-{version}']")
            drawn = [(columns[int(text.get("x"))], text.text)
                     for text in group.iter(SVG + "text") if text.get("class") == "code"]
            seen = [("main" if thread == "main" else "installer", name)
                    for thread, kind, name in steps(RECORDINGS / version / "check-checkForUpdates.txt")
                    if kind == "EVENT" or (kind == "call" and name in ("checkForUpdates", "InvokeUpdate"))]
            # Comes when the application is up, whatever else goes on; and the second call does nothing.
            seen = [step for step in seen if not step[1].startswith("updaterShouldPrompt")][:-1]
            self.assertEqual(drawn, seen, version)

    def test_picture_tells_reports_from_questions(self):
        hops = {name: on == "the main thread" for name, (on, _) in table().items()}
        picture = xml.etree.ElementTree.parse(markdown.ROOT / "docs/threads.svg").getroot()
        for version in VERSIONS:
            boxes = list(picture.find(f".//*[@id='framework-{version}']"))
            for box, text in zip(boxes, boxes[1:]):
                if box.tag == SVG + "rect" and text.text in hops:
                    self.assertEqual(box.get("class"), "tell" if hops[text.text] else "ask", text.text)


if __name__ == "__main__":
    unittest.main()

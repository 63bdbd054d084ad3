"""Every relative link in every document leads to a file that is there, and every anchor to a
heading. Nothing is asked of a network."""

import pathlib
import re
import tempfile
import unittest
import urllib.parse
import xml.etree.ElementTree

import markdown

# [text](target "title"), ![text](target), [name]: target, <img src="target">, <a href="target">
LINK = re.compile(r"""\]\(\s*<?([^\s)>]+)>?(?:\s+["'][^)]*)?\)|^\s*\[[^\]]+\]:\s+<?(\S+?)>?(?:\s|$)|(?:src|href)="([^"]+)\"""",
                  re.MULTILINE)


def links(text):
    """[(line, target)]; code holds no links."""
    found = []
    for number, line in markdown.split(text)[0]:
        line = re.sub(r"(`+)(.+?)\1", "", line)
        for match in LINK.finditer(line):
            found.append((number, next(group for group in match.groups() if group)))
    return found


def problem(document, target, root):
    """What is wrong with a link; None for nothing."""
    address = urllib.parse.urlsplit(target)
    if address.scheme or address.netloc:
        return None
    path = document
    if address.path:
        path = document.parent / urllib.parse.unquote(address.path)
        if not path.exists():
            return "leads to nothing"
        resolved = path.resolve()
        if root != resolved and root not in resolved.parents:
            return "leads out of the project"
        # A file system that takes any case would hide a wrong one.
        if path.name not in (".", "..") and path.name not in [entry.name for entry in path.parent.iterdir()]:
            return "has another case than the file"
    if address.fragment:
        if path.suffix != ".md":
            return None if path.is_file() else "has an anchor, but is no file"
        if address.fragment not in markdown.anchors(path.read_text(encoding="utf-8")):
            return "names no heading"
    return None


class Links(unittest.TestCase):
    def test_lead_somewhere(self):
        documents = markdown.documents()
        self.assertGreater(len(documents), 5)
        wrong = []
        for document in documents:
            for number, target in links(document.read_text(encoding="utf-8")):
                what = problem(document, target, markdown.ROOT)
                if what:
                    wrong.append(f"{document.relative_to(markdown.ROOT)}:{number}: {target} {what}")
        self.assertEqual(wrong, [], "\n" + "\n".join(wrong))

    def test_pictures_are_well_formed(self):
        pictures = list((markdown.ROOT / "docs").glob("*.svg"))
        self.assertTrue(pictures)
        for picture in pictures:
            root = xml.etree.ElementTree.parse(picture).getroot()
            self.assertTrue(root.tag.endswith("}svg"), picture)


class Checker(unittest.TestCase):
    """The checker itself, on a folder with mistakes."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name).resolve()
        (self.root / "a.md").write_text("# One\n\n## `two` and _three_!\n\n## One\n\n```\n# four\n```\n")

    def check(self, target):
        return problem(self.root / "a.md", target, self.root)

    def test_takes_what_is_there(self):
        for target in ["a.md", "#one", "a.md#two-and-three", "#one-1", ".", "http://www.example.com/none"]:
            self.assertIsNone(self.check(target), target)

    def test_refuses_what_is_not_there(self):
        for target in ["b.md", "#two", "#four", "a.md#and-three", "../", "A.md"]:
            self.assertIsNotNone(self.check(target), target)

    def test_finds_links_where_they_are(self):
        text = ("[a](b.md) and `[no](link)` and ![c](d.svg \"title\")\n[e]: f.md\n<img src=\"g.png\">\n"
                "```\n[no](link)\n```\n[h](i.md#j)\n")
        self.assertEqual([target for _, target in links(text)],
                         ["b.md", "d.svg", "f.md", "g.png", "i.md#j"])


if __name__ == "__main__":
    unittest.main()

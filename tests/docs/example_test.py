"""The example is a well-formed project, its events are those that the plug-in registers, and whatever its
code names exists."""

import re
import unittest

import hostlanguage
import markdown
import registered

FOLDER = markdown.ROOT / "examples/SelfUpdating"
ITEM = re.compile(r"Class=(\w+);([\w.]+);&h([0-9A-F]{16});&h([0-9A-F]{16});false")
KEYS = ["Type", "RBProjectVersion", "MinIDEVersion", "OrigIDEVersion", "Class", "DefaultWindow", "AppMenuBar",
        "MajorVersion", "MinorVersion", "SubVersion", "MacCarbonMachName", "OSXBundleID", "IsWebProject"]

# The host's own, as far as the example uses it: class: (super, {member: type}).
HOST = {
    "application": (None, {"executablefile": "folderitem"}),
    "array": (None, {"append": None}),
    "boolean": (None, {}), "date": (None, {}), "double": (None, {}), "integer": (None, {}), "string": (None, {}),
    "dictionary": (None, {"value": "variant"}),
    "encodings": (None, {"utf8": "textencoding"}),
    "folderitem": (None, {"parent": "folderitem", "child": "folderitem", "urlpath": "string"}),
    "memoryblock": (None, {}),
    "nsexceptionkvz": ("runtimeexception", {}),
    "runtimeexception": (None, {"message": "string"}),
    "system": (None, {"debuglog": None}),
    "textencoding": (None, {}),
    "timer": (None, {"mode": "integer", "period": "integer", "modemultiple": "integer"}),
    "variant": (None, {}),
}
HOST_EVENTS = {
    "application": ["CancelClose() As Boolean", "Close", "Open", "UnhandledException(error As RuntimeException) As Boolean"],
    "timer": ["Action"],
}
FUNCTIONS = {"debugbuild", "decodeurlcomponent", "defineencoding", "encodeurlcomponent", "instr", "left", "len", "max",
             "msgbox", "replace", "right", "split", "ubound", "val"}


class Program:
    """What there is to name: the plug-in's classes, the host's, the example's."""

    def __init__(self, declarations, files):
        self.classes = {name: (parent, dict(members)) for name, (parent, members) in HOST.items()}
        self.events = {name: {event.name: event for event in
                              (registered.parse(name, "event", False, text) for text in texts)}
                       for name, texts in HOST_EVENTS.items()}
        for each in declarations:
            parent, members = self.classes.setdefault(each.owner.lower(), (None, {}))
            if each.table == "event":
                self.events.setdefault(each.owner.lower(), {})[each.name] = each
            else:
                members[each.name.lower()] = "integer" if each.table == "constant" else lower(each.result)
        for file in files:
            members = {}
            for block in file.blocks:
                if block.kind == "Property":
                    name, kind = self.property(block)
                    members[name.lower()] = kind
                elif block.kind == "Method":
                    found = hostlanguage.signature(block.lines[0])
                    members[found.name.lower()] = lower(found.result) or members.get(found.name.lower())
            self.classes[file.name.lower()] = (file.super.lower(), members)

    @staticmethod
    def property(block):
        match = re.fullmatch(r"(?:Private )?(\w+)(\(\))? As (\w+)", block.lines[0])
        if not match or len(block.lines) != 1:
            raise ValueError(f"{block.lines} is no property")
        return match[1], lower(match[3] + (match[2] or ""))

    def parents(self, name):
        while name:
            yield name
            name = self.classes[name][0]

    def member(self, owner, name):
        """(found, type)"""
        if owner.endswith("()"):
            owner = "array"
        for each in self.parents(owner):
            members = self.classes[each][1]
            if name in members:
                return True, members[name]
        return False, None


def lower(name):
    return name.lower() if name else None


class Code:
    """The names in one method or event of a class."""

    def __init__(self, program, owner, lines):
        self.program, self.owner = program, owner.lower()
        self.names = {"app": "app", "self": self.owner, "me": self.owner,
                      "super": program.classes[self.owner][0]}
        self.problems = []
        for number, line in enumerate(lines):
            text = hostlanguage.without_texts(hostlanguage.code(line))
            if number == 0:
                self.declare(text[text.index("("):])
                self.walk(text[text.index("("):])
                continue
            for declared in re.findall(r"(?:dim|each|for|catch) \w+(?:\(\))? as (?:new )?\w+", text, re.I):
                self.declare(declared)
            if not text.lower().startswith("end "):
                self.walk(re.sub(r"\bas new\b", "as", text, flags=re.I))

    def declare(self, text):
        for name, array, kind in re.findall(r"(\w+)(\(\))? as (?:new )?(\w+)", text, re.I):
            self.names[name.lower()] = (kind + array).lower()

    def walk(self, text):
        """Follows a.b(c).d from left to right; in parentheses a new chain begins."""
        current, outer, after_dot = None, [], False
        for token in re.findall(r"[A-Za-z_]\w*|[.()]|[^\sA-Za-z_.()]+", text):
            word = token.lower()
            if token == ".":
                after_dot = True
            elif token == "(":
                outer.append(current)
            elif token == ")":
                current = outer.pop()
                if current and current.endswith("()"):
                    current = current[:-2]
            elif re.match(r"[a-z_]", word):
                current = self.of_member(current, word, text) if after_dot else self.of_name(word, text)
                after_dot = False
            else:
                current = None

    def of_member(self, owner, word, text):
        if owner is None:
            self.problems.append(f'"{text}": nothing is known of what stands before .{word}')
            return None
        found, kind = self.program.member(owner, word)
        if not found:
            self.problems.append(f'"{text}": {owner} has no {word}')
        return kind

    def of_name(self, word, text):
        if word in self.names:
            return self.names[word]
        if word in hostlanguage.KEYWORDS or word in FUNCTIONS:
            return None
        found, kind = self.program.member(self.owner, word)
        if found:
            return kind
        if word in self.program.classes:
            return word
        self.problems.append(f'"{text}": what is {word}?')
        return None


class Example(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.declarations = registered.read()
        cls.project = (FOLDER / "SelfUpdating.xojo_project").read_text(encoding="utf-8").splitlines()
        cls.items = [ITEM.fullmatch(line) for line in cls.project if line.startswith("Class=")]
        cls.files = {path.name: hostlanguage.class_file(path.read_text(encoding="utf-8"))
                     for path in sorted(FOLDER.glob("*.xojo_code"))}
        cls.program = Program(cls.declarations, cls.files.values())

    def blocks(self, *kinds):
        for file in self.files.values():
            for block in file.blocks:
                if block.kind in kinds:
                    yield file, block

    def test_project_has_its_keys_in_order(self):
        keys = [line.split("=", 1)[0] for line in self.project]
        self.assertEqual(list(dict.fromkeys(keys)), KEYS)

    def test_project_lists_every_file_under_its_class_and_an_identifier_of_its_own(self):
        self.assertTrue(all(self.items))
        self.assertEqual({item[2]: item[1] for item in self.items},
                         {name: file.name for name, file in self.files.items()})
        self.assertEqual(len({item[3] for item in self.items}), len(self.items))

    def test_project_opens_in_the_oldest_host_that_reads_its_format(self):
        """Xojo 2013 Release 1, which is also the first that can install the plug-in's archive."""
        values = dict(line.split("=", 1) for line in self.project)
        self.assertEqual(values["MinIDEVersion"], "20130100")
        self.assertEqual(values["RBProjectVersion"], "2013.01")
        self.assertIn("Xojo 2013 Release 1", markdown.read("examples/README.md"))

    def test_the_updater_is_made_once_and_never_let_go(self):
        lines = [hostlanguage.code(line) for _, block in self.blocks("Event", "Method") for line in block.lines]
        self.assertEqual([line for line in lines if "new MyUpdater" in line], ["Updater = new MyUpdater"])
        self.assertEqual([line for line in lines if re.match(r"(App\.)?Updater = nil", line, re.I)], [])

    def test_supers_exist(self):
        for file in self.files.values():
            self.assertIn(file.super.lower(), self.program.classes, file.name)

    def test_blocks_are_whole(self):
        for file, block in self.blocks("Event", "Method"):
            where = f"{file.name}, line {block.number}"
            found = hostlanguage.signature(block.lines[0])
            self.assertIsNotNone(found, f"{where}: {block.lines[0]}")
            self.assertEqual(block.lines[-1].lower(), f"end {found.kind.lower()}", where)
            self.assertIsNone(hostlanguage.balance_problem(block.lines), where)

    def test_events_are_those_of_the_super_to_the_letter(self):
        for file, block in self.blocks("Event"):
            found = hostlanguage.signature(block.lines[0])
            events = {}
            for parent in self.program.parents(file.super.lower()):
                events.update(self.program.events.get(parent, {}))
            self.assertIn(found.name, events, f"{file.name} has no such event to implement")
            self.assertIsNone(hostlanguage.event_problem(found, events[found.name]),
                              f"{file.name}: {found.name}")

    def test_every_event_of_the_plug_in_is_implemented_once(self):
        names = [hostlanguage.signature(block.lines[0]).name for _, block in self.blocks("Event")]
        for each in self.declarations:
            if each.table == "event":
                self.assertEqual(names.count(each.name), 1, each.name)

    def test_a_class_with_all_events_of_the_updater_can_be_made(self):
        chain = list(self.program.parents("myupdater"))
        self.assertEqual(chain[-1], "suupdaterkvz")
        implemented = [hostlanguage.signature(block.lines[0]).name
                       for file, block in self.blocks("Event") if file.name.lower() in chain]
        self.assertCountEqual(implemented, self.program.events["suupdaterkvz"])

    def test_whatever_the_code_names_exists(self):
        problems = []
        for file, block in self.blocks("Event", "Method"):
            found = Code(self.program, file.name, block.lines)
            problems += [f"{file.name}, line {block.number}: {problem}" for problem in found.problems]
        self.assertEqual(problems, [], "\n" + "\n".join(problems))

    def test_the_check_sees_wrong_names(self):
        for line in ["Updater.checkForUpdate", "dim x as SUUpdater", "App.Updater.InvokeUpdates", "nonsense(1)",
                     "mFeedParameters.Add nil", "dim d as Date = lastUpdate", "appcast.items(0).titel"]:
            code = Code(self.program, "UpdateQuestions",
                        ["Sub x(appcast as SUAppcastKVZ)", "dim Updater as MyUpdater", line, "End Sub"])
            self.assertEqual(len(code.problems), 1, f"{line}: {code.problems}")

    def test_addresses_are_examples(self):
        for path in sorted((markdown.ROOT / "examples").rglob("*")):
            if path.is_file():
                for host in re.findall(r"https?://([^/\"\s)]+)", path.read_text(encoding="utf-8")):
                    self.assertEqual(host, "www.example.com", path)


if __name__ == "__main__":
    unittest.main()

#!/usr/bin/python
"""Checks that the plug-in SparkleKVZ works on this Mac.

    arch -i386 /usr/bin/python2.7 check.py [--framework PATH/Sparkle.framework]

Nothing has to be installed: it needs the Python of Mac OS X 10.6 to 10.14 (python2.6 on 10.6) and
the file SparkleKVZ.dylib beside this one. With --framework it also loads the update framework and
lets it read a feed from a web server of its own, on this machine; nothing is downloaded or
installed. Nothing is left behind.

Each line is one check: "ok GROUP/HOST: NAME", or "FAIL GROUP/HOST: NAME: expected THIS, got THAT".
--only GROUP/HOST runs that group with that host again. The exit status is 0 when nothing failed.
The last line is for the plug-in's maintainers.

How it works: this script is a host program in small. The plug-in asks its host for everything by
name; the functions that answer are in the class Host below, and keep count of every reference.
The plug-in keeps what it learns for as long as its process lives, so each group of checks runs in
a process of its own, once for each kind of host that it is about.

It runs under Python 2.6 to 3.x, and keeps to what all of them understand.
"""
from __future__ import division, print_function

import ctypes
import hashlib
import optparse
import os
import platform
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback

try:
    from http.server import BaseHTTPRequestHandler, HTTPServer
except ImportError:
    from BaseHTTPServer import BaseHTTPRequestHandler, HTTPServer

HERE = os.path.dirname(os.path.abspath(__file__))
Byte, Int, Word = ctypes.c_uint8, ctypes.c_int32, ctypes.c_uint32
Long, Single, Double, Text = ctypes.c_int64, ctypes.c_float, ctypes.c_double, ctypes.c_char_p
Nothing = None
INTEGERS = (int, type(1 << 80))
PATIENCE = 120  # seconds until a process that says nothing more is given up


# ------------------------------------------------------------------------------------------------
# The system. What differs between a Mac and the Linux machine that this script is tested on is
# here and nowhere else.


class Mac(object):
    plugin = os.path.join(HERE, "SparkleKVZ.dylib")
    libraries = ["/usr/lib/libobjc.A.dylib", "/usr/lib/libSystem.B.dylib"] + [
        "/System/Library/Frameworks/%s.framework/%s" % (name, name)
        for name in ("Foundation", "CoreFoundation", "CoreServices", "ApplicationServices")]

    def __init__(self, testbed):
        self.loaded = [ctypes.CDLL(path) for path in self.libraries]

    def entry(self, path):
        """Loads the plug-in and answers the address of its entry, or why that cannot be done."""
        try:
            return address_in(ctypes.CDLL(path), "REALPluginMain"), None
        except OSError:
            return None, str(sys.exc_info()[1])

    def provides(self, library, symbol):
        """Whether a library, given by its install name, has a symbol."""
        try:
            return bool(address_in(ctypes.CDLL(library), symbol))
        except OSError:
            return False

    def core_foundation_object(self):
        """A Core Foundation object that is none of Foundation's classes, and its wrapper class."""
        return function("CFUUIDCreate", Word, 0), "CFUUIDKVZ"

    def stack_size(self):
        """The bytes of the calling thread's stack."""
        return function("pthread_get_stacksize_np", Word, function("pthread_self", Word))

    def name(self):
        return "Mac OS X %s %s" % (platform.mac_ver()[0], platform.machine())

    def command(self):
        """What starts this script once more, in the same Python with the same word size."""
        return ["/usr/bin/arch", "-i386", sys.executable, os.path.abspath(__file__)]

    def forget_settings(self, identifier):
        """Removes the user defaults that the framework has written for a bundle."""
        with open(os.devnull, "w") as nowhere:
            subprocess.call(["/usr/bin/defaults", "delete", identifier],
                            stdout=nowhere, stderr=nowhere)


class Linux(object):
    """The machine of the plug-in's developers: their stand-in for Cocoa, and the plug-in as an
    ELF library or, through their loader, as the bundle that ships."""

    plugin = None  # has to be named

    def __init__(self, testbed):
        self.loader = os.path.join(testbed, "libtestbed_loader.so")
        self.loaded = [ctypes.CDLL(os.path.join(testbed, "libtestbed_cocoa.so")),
                       ctypes.CDLL(None)]

    def entry(self, path):
        try:
            with open(path, "rb") as plugin:
                if plugin.read(4) == b"\x7fELF":
                    return address_in(ctypes.CDLL(path), "REALPluginMain"), None
            refusal = Text()
            load = ctypes.CDLL(self.loader).loader_load
            load.restype = Word
            entry = load(path.encode("utf-8"), b"REALPluginMain", ctypes.byref(refusal))
            return entry, str((refusal.value or b"").decode("utf-8"))
        except (OSError, IOError):
            return None, str(sys.exc_info()[1])

    def provides(self, library, symbol):
        return bool(address_of("__wrap_" + symbol) or address_of(symbol))

    def core_foundation_object(self):
        kind = function("typeids_of", Word, b"CFUUIDGetTypeID")
        return function("typeids_object", Word, kind), "CFUUIDKVZ"

    def stack_size(self):
        attributes, size = memory(64), memory(4)
        function("pthread_getattr_np", Int, function("pthread_self", Word), attributes)
        function("pthread_attr_getstacksize", Int, attributes, size)
        return words_at(size, 1)[0]

    def name(self):
        return "Linux %s" % platform.machine()

    def command(self):
        # The interpreter may be run through the loader of another system root: take its whole line.
        with open("/proc/self/cmdline", "rb") as line:
            words = line.read().decode("utf-8").split("\0")
        return words[:[os.path.basename(word) for word in words].index("check.py") + 1]

    def forget_settings(self, identifier):
        pass


system = None  # the one that this is, once main() knows


# ------------------------------------------------------------------------------------------------
# Memory, functions and Cocoa's messages.

kept = []  # what C code holds pointers to
troubles = []  # what went wrong inside functions that the plug-in called


def memory(size):
    block = ctypes.create_string_buffer(size)
    kept.append(block)
    return ctypes.addressof(block)


def words_at(address, count):
    return struct.unpack("=%dI" % count, ctypes.string_at(address, 4 * count))


def put(address, layout, *values):
    packed = struct.pack("=" + layout, *values)
    ctypes.memmove(address, packed, len(packed))


def text_at(address):
    return ctypes.string_at(address).decode("utf-8") if address else None


def address_in(library, name):
    try:
        return ctypes.cast(getattr(library, name), ctypes.c_void_p).value
    except AttributeError:
        return None


def address_of(name):
    for library in system.loaded:
        address = address_in(library, name)
        if address:
            return address
    return None


prototypes = {}


def prototype(result, *arguments):
    if (result, arguments) not in prototypes:
        prototypes[result, arguments] = ctypes.CFUNCTYPE(result, *arguments)
    return prototypes[result, arguments]


def passed(value):
    """A value as a function takes it: objects, selectors, integers and booleans are words."""
    if value is None:
        return Word(0)
    if isinstance(value, INTEGERS):
        return Word(value & 0xFFFFFFFF)
    if isinstance(value, float):
        return Double(value)
    if isinstance(value, bytes):
        return Text(value)
    return value


def call(address, result, *arguments):
    values = [passed(argument) for argument in arguments]
    return prototype(result, *[type(value) for value in values])(address)(*values)


def function(name, result, *arguments):
    return call(address_of(name), result, *arguments)


def callback(result, arguments, answer):
    """The address of a C function that runs `answer`. Nothing may be thrown through it: on this
    platform a Cocoa exception is a longjmp, which would cut through the interpreter."""
    def guarded(*values):
        try:
            value = answer(*values)
            return 0 if value is None else value
        except Exception:
            troubles.append(traceback.format_exc())
            return 0
    pointer = prototype(result, *arguments)(guarded)
    kept.append(pointer)
    return ctypes.cast(pointer, ctypes.c_void_p).value


def selector(name):
    return function("sel_registerName", Word, name.encode("ascii"))


def cocoa_class(name):
    return function("objc_getClass", Word, name.encode("ascii"))


def class_name(thing):
    return str(text_at(function("object_getClassName", Word, thing))) if thing else None


def message(entry, result, receiver, name, arguments):
    if not isinstance(receiver, INTEGERS):
        receiver = cocoa_class(receiver)
    return function(entry, result, receiver, selector(name), *arguments)


def send(receiver, name, *arguments):
    """A message to an object, or to a class given by its name. Only what does not raise may be sent
    from here; what is to raise is sent by the plug-in."""
    return message("objc_msgSend", Word, receiver, name, arguments)


def send_for_boolean(receiver, name, *arguments):
    return bool(send(receiver, name, *arguments) & 0xFF)


def send_for_integer(receiver, name, *arguments):
    return message("objc_msgSend", Int, receiver, name, arguments)


def send_for_long(receiver, name, *arguments):
    return message("objc_msgSend", Long, receiver, name, arguments)


def send_for_double(receiver, name, *arguments):
    return message("objc_msgSend_fpret", Double, receiver, name, arguments)


class Rectangle(ctypes.Structure):
    _fields_ = [("words", Word * 4)]


def send_for_record(receiver, name):
    """The bytes of a small struct: up to 8 come back in registers, a rectangle in memory."""
    if name == "rectValue":
        rectangle = message("objc_msgSend_stret", Rectangle, receiver, name, ())
        return ctypes.string_at(ctypes.addressof(rectangle), 16)
    return struct.pack("=q", send_for_long(receiver, name))


def new_class(name, methods):
    """Makes a Cocoa class. A method is (selector, types, result, arguments, function), where the
    function is given the receiver and the arguments."""
    name = name.encode("ascii")
    made = function("objc_allocateClassPair", Word, cocoa_class("NSObject"), name, 0)
    for method in methods:
        add_method(made, *method)
    function("objc_registerClassPair", Nothing, made)
    return made


def add_method(owner, name, types, result, arguments, answer):
    implementation = callback(result, [Word, Word] + arguments,
                              lambda receiver, command, *rest: answer(receiver, *rest))
    function("class_addMethod", Byte, owner, selector(name), implementation, types)


def is_a(thing, name):
    return send_for_boolean(thing, "isKindOfClass:", cocoa_class(name))


def text(content):
    """Text from UTF-8, in every Python."""
    return content.decode("utf-8")


def units(text):
    return text.encode("utf-16-le")


def string(text):
    """An autoreleased NSString."""
    encoded = units(text)
    made = send(send("NSString", "alloc"), "initWithCharacters:length:", encoded, len(encoded) // 2)
    return send(made, "autorelease")


def string_text(thing):
    if not thing:
        return None
    length = send(thing, "length")
    buffer = ctypes.create_string_buffer(2 * length + 2)
    send(thing, "getCharacters:", ctypes.addressof(buffer))
    return buffer.raw[:2 * length].decode("utf-16-le")


def description(thing):
    return string_text(send(thing, "description"))


def dictionary(pairs):
    made = send("NSMutableDictionary", "dictionary")
    for key, value in pairs:
        send(made, "setObject:forKey:", value, string(key))
    return made


def array(elements):
    made = send("NSMutableArray", "array")
    for element in elements:
        send(made, "addObject:", element)
    return made


def on_main_thread():
    return send_for_boolean("NSThread", "isMainThread")


def wait_for(condition):
    """Turns the main thread's run loop until the condition holds; gives up in the end."""
    mode = words_at(address_of("NSDefaultRunLoopMode"), 1)[0]
    given_up = time.time() + PATIENCE / 4
    while time.time() < given_up:
        with Pool():
            if condition():
                return
            send(send("NSRunLoop", "currentRunLoop"), "runMode:beforeDate:", mode,
                 send("NSDate", "dateWithTimeIntervalSinceNow:", 0.05))
        time.sleep(0.005)


class Pool(object):
    """An autorelease pool for the body of a with statement."""

    def __enter__(self):
        self.pool = send(send("NSAutoreleasePool", "alloc"), "init")

    def __exit__(self, *exception):
        send(self.pool, "drain")


class Log(object):
    """What the system log is told during a with statement: NSLog writes to the standard error too
    when that is a file."""

    def __enter__(self):
        sys.stderr.flush()
        self.file = tempfile.TemporaryFile()
        self.before = os.dup(2)
        os.dup2(self.file.fileno(), 2)
        return self

    def __exit__(self, *exception):
        os.dup2(self.before, 2)
        os.close(self.before)
        self.file.seek(0)
        said = self.file.read().decode("utf-8", "replace")
        self.file.close()
        # A line of the log begins with the date, and ends with "]" and what was said. Before it
        # raises, Mac OS X itself may remark that a selector is not recognised.
        parts = re.split(r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d[^\]]*\] ", said)
        self.entries = [part.rstrip("\n") for part in parts[1:]
                        if not re.match(r"(\*\*\* )?[-+]\[.*unrecognized selector", part)]


# ------------------------------------------------------------------------------------------------
# What the plug-in registers, member by member.

COMPUTED = True  # a method entry that has a setter too

CLASSES = [
    ("SUVersionComparisonKVZ",
     [("Constructor",), ("Destructor",)],
     ["compareVersion(VersionA as string, VersionB as string) as integer"],
     ["NSOrderedAscending = -1", "NSOrderedSame = 0", "NSOrderedDescending = 1"],
     []),
    ("SUAppcastItemKVZ",
     [("title as string",), ("versionString as string",), ("displayVersionString as string",),
      ("date as date",), ("itemDescription as string",), ("releaseNotesURL as string",),
      ("fileURL as string",), ("DSASignature as string",), ("minimumSystemVersion as string",),
      ("Constructor",), ("propertiesDictionary as dictionary",)],
     [], [], []),
    ("SUUpdaterKVZ",
     [("InvokeUpdate",), ("_exception as NSExceptionKVZ",), ("feedURL as string", COMPUTED),
      ("automaticallyChecksForUpdates as boolean", COMPUTED),
      ("sendsSystemProfile as boolean", COMPUTED),
      ("automaticallyDownloadsUpdates as boolean", COMPUTED),
      ("checkForUpdatesInBackground",), ("checkForUpdateInformation",), ("resetUpdateCycle",),
      ("updateInProgress as boolean",), ("updateCheckInterval as double", COMPUTED),
      ("lastUpdateCheckDate as date",), ("checkForUpdates",), ("Constructor",),
      ("Constructor(Bundle as folderitem)",), ("hostBundle as folderitem",)],
     ["pathToRelaunchForUpdater as string",
      "versionComparatorForUpdater as SUVersionComparisonKVZ",
      "updaterWillRelaunchApplication",
      "updaterDidNotFindUpdate",
      "updaterShouldPromptForPermissionToCheckForUpdates as boolean",
      "didFindValidUpdate(update as SUAppcastItemKVZ)",
      "willInstallUpdate(update as SUAppcastItemKVZ)",
      "didFinishLoadingAppcast(update as SUAppcastKVZ)",
      "bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
      "feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
      "shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean"],
     [],
     ["LoadFramework(path as folderitem) as boolean", "IsFrameworkLoaded as boolean"]),
    ("SUAppcastKVZ",
     [("UserAgentString as string", COMPUTED), ("fetchAppcastFromURL(url as string)",),
      ("Constructor",), ("items as SUAppcastItemKVZ()",), ("incrementalData as memoryblock",)],
     [], [], [])]

CALLED_TOO_OFTEN = "Constructor called too often. Object is already initialized."

# Where the class record has the pointer to a list; its count is in the next word.
PROPERTIES, METHODS, EVENTS, CONSTANTS, SHARED_PROPERTIES, SHARED_METHODS = 7, 9, 11, 18, 21, 23
# The words of an entry of each list: up to interface version 9, and from 10 on.
ENTRY_WORDS = {PROPERTIES: (10, 12), METHODS: (4, 6), EVENTS: (2, 4), CONSTANTS: (3, 5),
               SHARED_PROPERTIES: (10, 12), SHARED_METHODS: (4, 6)}
DECLARATION = {PROPERTIES: 1, METHODS: 2, EVENTS: 0, CONSTANTS: 0, SHARED_METHODS: 2}


def type_of(name):
    return {None: Nothing, "boolean": Byte, "integer": Int, "double": Double}.get(name, Word)


def signature(declaration):
    """The C types of a declaration's result and parameters."""
    match = re.match(r"(\w+)(?:\((.*?)\))?(?: as (\w+)(?:\(\))?)?$", declaration)
    parameters = [part.split(" as ")[1] for part in (match.group(2) or "").split(",") if part]
    return type_of(match.group(3)), [type_of(name) for name in parameters]


class PluginClass(object):
    """A class record, as it was when the plug-in registered it."""

    def __init__(self, record, interface, position, first_event_word):
        old = interface <= 9
        self.words = words_at(record, 25 if old else 29)
        self.name = text_at(self.words[1])
        self.constructor, self.destructor = self.words[5], self.words[6]
        self.entries, self.declared = {}, {}
        for where, sizes in ENTRY_WORDS.items():
            size = sizes[0] if old else sizes[1]
            first, count = self.words[where], self.words[where + 1]
            self.entries[where] = [words_at(first + 4 * size * i, size)
                                   for i in range(count if first else 0)]
            if where in DECLARATION:
                self.declared[where] = [str(text_at(entry[DECLARATION[where]]))
                                        for entry in self.entries[where]]
        # The host's part of the record: where instances have their data, and a word an event.
        put(record + 16, "I", position)
        self.event_words = {}
        for i, declaration in enumerate(self.declared[EVENTS]):
            place = self.words[EVENTS] + 4 * i * ENTRY_WORDS[EVENTS][0 if old else 1] + 4
            put(place, "I", first_event_word + i)
            self.event_words[first_event_word + i] = declaration

    def member(self, where, declaration):
        return self.entries[where][self.declared[where].index(declaration)]


# ------------------------------------------------------------------------------------------------
# The host.

UTF_8, UTF_16, ASCII, MAC_ROMAN, ANY = 0x08000100, 0x0100, 0x0600, 0, 0xFFFF
CODECS = {UTF_8: "utf-8", UTF_16: "utf-16-le", ASCII: "ascii", MAC_ROMAN: "mac-roman",
          ANY: "mac-roman"}
# Classes of other plug-ins, which wrap an object, a Core Foundation object or a record in memory.
OBJECT_WRAPPERS = ["NSExceptionKVZ", "NSErrorKVZ", "NSObjectKVZ"]
CF_WRAPPERS = ["CFObjectKVZ", "CFUUIDKVZ"]
RECORD_WRAPPERS = {"NSRectKVZ": "4f", "NSSizeKVZ": "2f", "NSPointKVZ": "2f", "NSRangeKVZ": "2I"}
BUILT_IN = ["Date", "Dictionary", "MemoryBlock", "RuntimeException", "NilObjectException",
            "UnsupportedOperationException", "OutOfMemoryException"]
DATE_FIELDS = ["Year", "Month", "Day", "Hour", "Minute", "Second"]
VARIANT_TYPES = {"int32": 2, "uint32": 3, "int64": 3, "uint64": 3, "single": 4, "double": 5,
                 "string": 8, "boolean": 11}
ARRAY_OF_VARIANTS = 4  # in the host's own numbering of arrays
ELEMENT_TYPES = {"int32": (2, Int), "int64": (3, Long), "single": (4, Single),
                 "double": (5, Double), "string": (8, Word), "variant": (9, Word)}
TRUE_ITEM = "TrueItem(Index as integer) as Folderitem"
VALUE_SETTER = "Value(key As Variant, Assigns _value As Variant)"
VALUE_GETTER = "Value(key As Variant) As Variant"
KEY_GETTER = "Key(index As Integer) As Variant"


class Thing(object):
    """Something of the host's that the plug-in knows by a handle. It begins with one reference."""

    def __init__(self, kind, size, **parts):
        self.kind = kind
        self.handle = memory(size)
        self.references = 1
        self.properties = {}
        self.__dict__.update(parts)


class Host(object):
    def __init__(self, version, absent=()):
        self.version = version
        # Where instances have a plug-in's data. No plug-in may guess it, so hosts differ here.
        self.position = 16 if (version or 0) < 2012.0 else 28
        self.things = {}
        self.classes = {}
        self.order = []  # of registration
        self.pending = []  # exceptions raised, oldest first
        self.logged_before = False  # whether a Log had something in it when the last was raised
        self.interface = None
        self.prepared = 0
        self.buffers = {}  # what PluginGetStringData has handed out
        self.registry = function("CFDictionaryCreateMutable", Word, 0, 0, 0, 0)
        self.operations = self.make_operations()
        for name in absent:
            del self.operations[name]
        if version is None:
            del self.operations["REALGetRBVersion"]
        self.add_companion()

    def start(self, path):
        entry, why = system.entry(path)
        if not entry:
            raise RuntimeError("%s cannot be loaded: %s" % (path, why))
        call(entry, Nothing, callback(Word, [Text], self.resolve))

    def resolve(self, name):
        return self.operations.get(name.decode("ascii"), 0)

    # -- Things and their references.

    def new(self, kind, size=64, **parts):
        thing = Thing(kind, size, **parts)
        self.things[thing.handle] = thing
        return thing

    def thing(self, handle, kind=None):
        thing = self.things.get(handle)
        if not thing or thing.references < 0 or (kind and thing.kind != kind):
            raise RuntimeError("0x%x is no living %s" % (handle, kind or "object"))
        return thing

    def lock(self, handle):
        if handle:
            self.thing(handle).references += 1

    def unlock(self, handle):
        if not handle:
            return
        thing = self.thing(handle)
        thing.references -= 1
        if thing.references == 0:
            self.destroy(thing)

    def destroy(self, thing):
        if thing.kind in self.classes:
            of = self.classes[thing.kind]
            if "Destructor" in of.declared[METHODS]:
                call(of.member(METHODS, "Destructor")[0], Nothing, thing.handle)
            call(of.destructor, Nothing, thing.handle)
        elif thing.kind in OBJECT_WRAPPERS + CF_WRAPPERS:
            held = self.field(thing)
            if held:
                if self.registered(held) == thing.handle:
                    function("CFDictionaryRemoveValue", Nothing, self.registry, held)
                function("CFRelease", Nothing, held)
        thing.references = -1
        for child in getattr(thing, "children", []):
            self.unlock(child)
        for child in thing.properties.values():
            if isinstance(child, Thing):
                self.unlock(child.handle)

    def alive(self):
        """How many references of which kinds of things there still are, as text."""
        counts = {}
        for thing in self.things.values():
            if thing.references > 0:
                counts[thing.kind] = counts.get(thing.kind, 0) + thing.references
        return sorted("%d %s" % (count, kind) for kind, count in counts.items())

    # -- Instances of classes.

    def instance(self, name, handlers=()):
        """A new instance of a class, or nil when the host has none of that name. `handlers` are the
        events that the program implements: pairs of declaration and function."""
        if name not in self.classes and name not in (
                BUILT_IN + OBJECT_WRAPPERS + CF_WRAPPERS + list(RECORD_WRAPPERS)):
            return None
        thing = self.new(name, size=512)
        if name == "Dictionary":
            thing.pairs, thing.children = [], []
            thing.methods = self.dictionary_methods(thing)
        if name in CF_WRAPPERS:
            put(thing.handle + self.position + 8, "I", 0x52424346)
        if name in self.classes:
            thing.handlers = dict((declaration, self.handler(declaration, answer))
                                  for declaration, answer in handlers)
            call(self.classes[name].constructor, Nothing, thing.handle)
        return thing

    def handler(self, declaration, answer):
        result, parameters = signature(declaration)
        # A boolean is answered as a whole word, which has it in its lowest byte.
        return callback(Word if result is Byte else result, [Word] + parameters, answer)

    def field(self, thing, index=0):
        """A word of an instance's data; the first one is what "Handle" shows to programs."""
        return words_at(thing.handle + self.position + 4 * index, 1)[0]

    def set_field(self, thing, value, index=0):
        put(thing.handle + self.position + 4 * index, "I", value)

    def get(self, thing, declaration, *arguments):
        """Calls a method of an instance, or reads a property."""
        result, parameters = signature(declaration)
        member = self.classes[thing.kind].member(METHODS, declaration)
        values = [kind(value) for kind, value in zip(parameters, arguments)]
        return call(member[0], result, thing.handle, *values)

    def set(self, thing, declaration, value):
        member = self.classes[thing.kind].member(METHODS, declaration)
        call(member[1], Nothing, thing.handle, signature(declaration)[0](value))

    def shared(self, name, declaration, *arguments):
        member = self.classes[name].member(SHARED_METHODS, declaration)
        return call(member[0], signature(declaration)[0], *arguments)

    def registered(self, cocoa):
        return function("CFDictionaryGetValue", Word, self.registry, cocoa)

    # -- Values, as Python has them.

    def text(self, handle):
        """The text of a string that the plug-in has handed over."""
        if not handle:
            return None
        thing = self.thing(handle, "String")
        text = thing.bytes.decode(CODECS[thing.encoding])
        self.unlock(handle)
        return text

    def string(self, text, encoding=UTF_8):
        return self.new_string(text.encode(CODECS[encoding]), encoding)

    def new_string(self, content, encoding):
        thing = self.new("String", bytes=content, encoding=encoding)
        if (self.version or 0) <= 2013.0:
            # Older hosts show the record: the text follows the byte at the second word's address,
            # and the fourth word is its length.
            stored = memory(len(content) + 5)
            ctypes.memmove(stored + 1, content, len(content))
            put(thing.handle, "4I", 1, stored, 0, len(content))
        else:
            put(thing.handle, "4I", 1, 0xBAD0BAD0, 0xBAD0BAD0, 0xBAD0BAD0)
        return thing

    def value(self, handle):
        """What a variant that the plug-in has handed over holds, in words."""
        if not handle:
            return None
        value = self.look(handle)
        self.unlock(handle)
        return value

    def look(self, handle):
        if not handle:
            return None
        thing = self.thing(handle)
        if thing.kind == "Variant":
            return thing.type, thing.value
        if thing.kind == "String":
            return "string", thing.bytes.decode(CODECS[thing.encoding])
        if thing.kind == "Date":
            return "date", tuple(thing.properties.get(name) for name in DATE_FIELDS)
        if thing.kind == "MemoryBlock":
            return "memoryblock", ctypes.string_at(thing.data, thing.length)
        if thing.kind == "FolderItem":
            return "folderitem", thing.path
        if thing.kind == "Array":
            return "array", [self.look(child) for child in thing.children]
        if thing.kind == "Dictionary":
            return "dictionary", sorted((self.look(key), self.look(value))
                                        for key, value in thing.pairs)
        if thing.kind in RECORD_WRAPPERS:
            layout = "=" + RECORD_WRAPPERS[thing.kind]
            data = ctypes.string_at(thing.handle + self.position,
                                    struct.calcsize(layout))
            return thing.kind, struct.unpack(layout, data)
        return thing.kind, self.field(thing)

    def variant(self, kind, value):
        if kind == "string":
            string = self.string(value)
            made = self.new("Variant", type=kind, value=value, children=[string.handle])
            made.string = string
            return made
        return self.new("Variant", type=kind, value=value)

    def date(self, *fields):
        date = self.instance("Date")
        date.properties.update(zip(DATE_FIELDS, fields))
        return date

    def folder_item(self, path):
        return self.new("FolderItem", path=path) if path else None

    def memory_block(self, size):
        return self.new("MemoryBlock", data=memory(size + 1), length=size)

    def array(self, element, children):
        """An array of things, which it takes over, or of plain values."""
        if element in ("string", "variant"):
            children = [child.handle if child else 0 for child in children]
            return self.new("Array", element=element, values=children, children=children)
        return self.new("Array", element=element, values=children)

    def dictionary(self, pairs):
        """A Dictionary of things, which it takes over."""
        made = self.instance("Dictionary")
        for key, value in pairs:
            key = self.variant("string", key)
            value = value.handle if value else 0
            made.pairs.append((key.handle, value))
            made.children += [key.handle, value]
        return made

    def exceptions(self):
        """Class, message and number of the exceptions raised since the last call."""
        found = []
        for handle in self.pending:
            thing = self.thing(handle)
            if thing.kind == "NSExceptionKVZ":
                found.append((thing.kind, str(string_text(send(self.field(thing), "name")))))
            else:
                text = thing.properties.get("Message")
                found.append((thing.kind, text and str(text.bytes.decode("ascii")),
                              thing.properties.get("ErrorNumber")))
            self.unlock(handle)
        self.pending = []
        return found

    # -- The operations that the plug-in asks for by name.

    def make_operations(self):
        table = {}

        def operation(result, *arguments):
            def add(answer):
                table[answer.__name__] = callback(result, list(arguments), answer)
            return add

        # References.
        for name, answer in (("REALLockObject", self.lock), ("REALUnlockObject", self.unlock)):
            table[name] = callback(Nothing, [Word], answer)

        @operation(Nothing, Word)
        def REALLockString(string):
            self.lock(self.thing(string, "String").handle)

        @operation(Nothing, Word)
        def REALUnlockString(string):
            if string:
                self.unlock(self.thing(string, "String").handle)

        # The plug-in and its classes.
        @operation(Double)
        def REALGetRBVersion():
            return self.version

        @operation(Nothing, Int)
        def RegisterPluginVersion(interface):
            self.interface = interface

        @operation(Nothing, Word)
        def PluginRegisterClass(record):
            first_event_word = 0x0E7E0000 + 64 * len(self.classes)
            made = PluginClass(record, self.interface, self.position, first_event_word)
            self.classes[made.name] = made
            self.order.append(str(made.name))

        @operation(Word, Text)
        def PluginNewInstance(name):
            made = self.instance(name.decode("ascii"))
            return made and made.handle

        @operation(Word, Text)
        def pluginObjectType(name):
            name = name.decode("ascii")
            known = BUILT_IN + OBJECT_WRAPPERS + CF_WRAPPERS + list(RECORD_WRAPPERS)
            return known.index(name) + 1 if name in known else 0

        @operation(Word, Word, Word)
        def RuntimeObjectIsa(handle, wanted):
            known = BUILT_IN + OBJECT_WRAPPERS + CF_WRAPPERS + list(RECORD_WRAPPERS)
            return handle and known[wanted - 1] == self.thing(handle).kind

        @operation(Nothing, Word)
        def RuntimeRaiseException(exception):
            self.logged_before = os.fstat(2).st_size > 0
            self.lock(exception)
            self.pending.append(exception)

        @operation(Word, Word, Word)
        def GetEventInstance(handle, word):
            thing = self.thing(handle)
            declaration = self.classes[thing.kind].event_words[word]
            return thing.handlers.get(declaration, 0)

        # Properties and methods by name.
        @operation(Nothing, Word, Text, Word)
        def REALSetPropValueString(handle, name, value):
            self.lock(value)
            held = self.thing(value, "String") if value else None
            self.thing(handle).properties[name.decode("ascii")] = held

        @operation(Nothing, Word, Text, Int)
        def REALSetPropValueInt(handle, name, value):
            self.thing(handle).properties[name.decode("ascii")] = value

        @operation(Word, Word, Text, Word)
        def REALGetPropValueInt(handle, name, out):
            thing, name = self.thing(handle), name.decode("ascii")
            values = dict(thing.properties)
            if thing.kind == "Dictionary":
                values["Count"] = len(thing.pairs)
            if name in values:
                put(out, "i", values[name])
            return name in values

        @operation(Word, Word, Text, Word)
        def REALGetPropValueObject(handle, name, out):
            # A date is a variant already, and stands for itself.
            found = name == b"DateValue" and self.thing(handle).kind == "Date"
            if found:
                self.lock(handle)
                put(out, "I", handle)
            return found

        @operation(Word, Word, Text)
        def REALLoadObjectMethod(handle, declaration):
            declaration = declaration.decode("ascii")
            thing = self.thing(handle)
            if thing.kind == "FolderItem" and declaration == TRUE_ITEM:
                return self.true_item
            # Each Dictionary has methods of its own, which take no other.
            return thing.methods.get(declaration, 0) if thing.kind == "Dictionary" else 0

        @operation(Word, Text)
        def REALLoadGlobalMethod(declaration):
            known = declaration == b"VarType(value As Variant) As Int32"
            return self.var_type if known else 0

        self.true_item = callback(Word, [Word, Int], lambda item, index: 0)
        self.var_type = callback(Int, [Word], self.variant_type)

        # Text.
        @operation(Word, Word, Int)
        def REALBuildString(content, length):
            return self.new_string(ctypes.string_at(content, length), ANY).handle

        @operation(Nothing, Word, Word)
        def REALSetStringEncoding(string, encoding):
            self.thing(string, "String").encoding = encoding

        @operation(Word, Word)
        def REALGetStringEncoding(string):
            return self.thing(string, "String").encoding

        @operation(Word, Word, Word)
        def REALConvertString(string, encoding):
            thing = self.thing(string, "String")
            text = thing.bytes.decode(CODECS[thing.encoding])
            return self.string(text, encoding).handle

        @operation(Word, Word, Int)
        def REALGetStringCFString(string, strip):
            thing = self.thing(string, "String")
            encoded = units(thing.bytes.decode(CODECS[thing.encoding]))
            return function("CFStringCreateWithCharacters", Word, 0, encoded, len(encoded) // 2)

        @operation(Word, Word, Word, Word)
        def PluginGetStringData(string, encoding, out):
            thing = self.thing(string, "String")
            content = thing.bytes
            if encoding not in (ANY, thing.encoding):
                content = content.decode(CODECS[thing.encoding]).encode(CODECS[encoding])
            stored = memory(len(content) + 4)
            ctypes.memmove(stored, content, len(content))
            self.buffers[stored] = len(content)
            put(out, "3I", stored, len(content), encoding)
            return True

        @operation(Nothing, Word)
        def PluginDisposeStringData(data):
            del self.buffers[words_at(data, 1)[0]]

        # Variants.
        for kind, given, name in (
                ("int32", Int, "Int32"), ("uint32", Word, "UInt32"), ("int64", Long, "Int64"),
                ("uint64", ctypes.c_uint64, "UInt64"), ("single", Single, "Single"),
                ("double", Double, "Double")):
            table[name + "ToVariant"] = callback(
                Word, [given], lambda value, kind=kind: self.variant(kind, value).handle)
            table["VariantTo" + name] = callback(
                given, [Word], lambda handle: self.thing(handle, "Variant").value)

        @operation(Word, Byte)
        def BooleanToVariant(value):
            return self.variant("boolean", bool(value)).handle

        @operation(Word, Word)
        def StringToVariant(string):
            thing = self.thing(string, "String")
            return self.variant("string", thing.bytes.decode(CODECS[thing.encoding])).handle

        @operation(Word, Word)
        def VariantToString(handle):
            held = self.thing(handle, "Variant").string.handle
            self.lock(held)
            return held

        # Arrays.
        @operation(Word, Int, Int)
        def RuntimeArrayCreateSingleDimBoundedArray(kind, bound):
            if (kind, bound) != (ARRAY_OF_VARIANTS, -1):
                raise RuntimeError("an array of type %d up to %d was asked for" % (kind, bound))
            return self.array("variant", []).handle

        def insert(handle, index, element):
            self.lock(element)
            self.thing(handle, "Array").children.insert(index, element)

        def element(handle, index):
            thing = self.thing(handle, "Array")
            if thing.element in ("string", "variant"):
                self.lock(thing.values[index])
            return thing.values[index]

        inserting = callback(Nothing, [Word, Int, Word], insert)
        getting = dict((kind, callback(given, [Word, Int], element))
                       for kind, (code, given) in ELEMENT_TYPES.items())

        @operation(Word, Word)
        def RuntimeArrayDirectGetInsertProc(handle):
            return inserting

        @operation(Word, Word)
        def RuntimeArrayDirectGetGetProc(handle):
            return getting[self.thing(handle, "Array").element]

        @operation(Int, Word)
        def RuntimeUBound(handle):
            return len(self.thing(handle, "Array").values) - 1

        # Bytes.
        @operation(Word, Int)
        def newMemoryBlock(size):
            return self.memory_block(size).handle

        @operation(Word, Word)
        def memoryBlockGetPtr(handle):
            return self.thing(handle, "MemoryBlock").data

        @operation(Int, Word)
        def memoryBlockGetSize(handle):
            return self.thing(handle, "MemoryBlock").length

        # Files.
        @operation(Word, Word, Word, Word)
        def REALFSRefFromFolderItem(handle, reference, name):
            path = self.thing(handle, "FolderItem").path
            if not name:
                return reference_of(path, reference)
            put_name(name, os.path.basename(path))
            return reference_of(os.path.dirname(path), reference)

        @operation(Word, Word, Word)
        def REALFSSpecFromFolderItem(fsspec, handle):
            return False

        @operation(Word, Word, Word)
        def REALFolderItemFromParentFSRef(reference, name):
            path = os.path.join(path_of_reference(reference), name_at(name))
            return self.folder_item(path).handle

        @operation(Word, Word)
        def FolderItemFromFSSpec(fsspec):
            reference = memory(80)
            if function("FSpMakeFSRef", Int, fsspec, reference):
                return 0
            return self.folder_item(path_of_reference(reference)).handle

        return table

    def variant_type(self, handle):
        thing = self.thing(handle)
        if thing.kind == "Variant":
            return VARIANT_TYPES[thing.type]
        if thing.kind == "Array":
            return 4096 + ELEMENT_TYPES[thing.element][0]
        return 7 if thing.kind == "Date" else 9

    def dictionary_methods(self, dictionary):
        def own(handle):
            if self.thing(handle) is not dictionary:
                raise RuntimeError("a method of 0x%x was called with 0x%x"
                                   % (dictionary.handle, handle))

        def set_value(handle, key, value):
            own(handle)
            for child in (key, value):
                self.lock(child)
                dictionary.children.append(child)
            dictionary.pairs.append((key, value))

        def get_value(handle, key):
            own(handle)
            for known, value in dictionary.pairs:
                if self.look(known) == self.look(key):
                    self.lock(value)
                    return value
            return 0

        def get_key(handle, index):
            own(handle)
            key = dictionary.pairs[index][0]
            self.lock(key)
            return key

        return {VALUE_SETTER: callback(Nothing, [Word, Word, Word], set_value),
                VALUE_GETTER: callback(Word, [Word, Word], get_value),
                KEY_GETTER: callback(Word, [Word, Int], get_key)}

    # -- The companion plug-in, which adds these to NSException.

    def add_companion(self):
        owner = function("object_getClass", Word, cocoa_class("NSException"))

        def new_exception(receiver, exception):
            made = self.instance("NSExceptionKVZ")
            self.set_field(made, send(exception, "retain"))
            return made.handle

        def prepare(receiver):
            self.prepared += 1

        for name, types, result, arguments, answer in (
                ("NewNSExceptionKVZ:", b"^v12@0:4@8", Word, [Word], new_exception),
                ("PrepareNSExceptionKVZ", b"v8@0:4", Nothing, [], prepare),
                ("GetInstancesDictionaryKVZ", b"^v8@0:4", Word, [],
                 lambda receiver: self.registry)):
            add_method(owner, name, types, result, arguments, answer)


def reference_of(path, reference):
    """Fills in an FSRef; false when there is no such file."""
    url = send("NSURL", "fileURLWithPath:", string(path))
    return bool(function("CFURLGetFSRef", Byte, url, reference))


def path_of_reference(reference):
    url = send(function("CFURLCreateFromFSRef", Word, 0, reference), "autorelease")
    return string_text(send(url, "path"))


def put_name(name, text):
    encoded = units(text)
    put(name, "H", len(encoded) // 2)
    ctypes.memmove(name + 2, encoded, len(encoded))


def name_at(name):
    length, = struct.unpack("=H", ctypes.string_at(name, 2))
    return ctypes.string_at(name + 2, 2 * length).decode("utf-16-le")


# ------------------------------------------------------------------------------------------------
# Objects of Cocoa that stand in for the framework's.

answers = {}  # what a stand-in answers: (object, selector) to object
told = []  # what stand-ins were told, oldest first: (selector, object)

OBJECTS = ["title", "versionString", "displayVersionString", "date", "itemDescription",
           "releaseNotesURL", "fileURL", "DSASignature", "minimumSystemVersion",
           "propertiesDictionary", "userAgentString", "incrementalData", "items", "feedURL",
           "lastUpdateCheckDate", "hostBundle"]
BOOLEANS = ["automaticallyChecksForUpdates", "sendsSystemProfile", "automaticallyDownloadsUpdates",
            "updateInProgress"]


def make_stand_in_class():
    def objects(name):
        return (name, b"@8@0:4", Word, [], lambda receiver: answers.get((receiver, name), 0))

    def booleans(name):
        return (name, b"c8@0:4", Word, [], lambda receiver: answers.get((receiver, name), 0))

    def actions(name, types=b"v12@0:4@8", argument=Word):
        return (name, types, Nothing, [argument],
                lambda receiver, value: told.append((name, value)))

    def worker(receiver, work):
        with Pool():
            answers[receiver, "work:"]()

    return new_class("CheckStandIn", [objects(name) for name in OBJECTS] +
                     [booleans(name) for name in BOOLEANS] + [
        actions("setUserAgentString:"), actions("setFeedURL:"), actions("fetchAppcastFromURL:"),
        actions("setDelegate:"), actions("checkForUpdates:"),
        actions("setUpdateCheckInterval:", b"v16@0:4d8", Double),
        actions("setAutomaticallyChecksForUpdates:", b"v12@0:4c8", Byte),
        actions("setSendsSystemProfile:", b"v12@0:4c8", Byte),
        actions("setAutomaticallyDownloadsUpdates:", b"v12@0:4c8", Byte),
        ("updateCheckInterval", b"d8@0:4", Double, [],
         lambda receiver: answers.get((receiver, "updateCheckInterval"), 0.0)),
        ("relaunch", b"v8@0:4", Nothing, [], lambda receiver: told.append(("relaunch", 0))),
        ("work:", b"v12@0:4@8", Nothing, [Word], worker)])


def stand_in(**values):
    made = send(send("CheckStandIn", "alloc"), "init")
    for name, value in values.items():
        answers[made, name] = value
    return made


def around(host, name, cocoa, handlers=()):
    """An instance whose "Handle" a program has set, to an object that it keeps."""
    thing = host.instance(name, handlers)
    host.set_field(thing, send(cocoa, "retain") if cocoa else 0)
    return thing


def updater_with(host, *handlers):
    """An updater that no framework stands behind, and its delegate."""
    updater = host.instance("SUUpdaterKVZ", handlers)
    host.get(updater, "Constructor")
    return updater, host.field(updater, 1)


# ------------------------------------------------------------------------------------------------
# Reporting.


def is_text(value):
    return isinstance(value, (str, bytes, type(b"".decode("ascii"))))


def show(value):
    if value is None:
        return "nothing"
    if value is True or value is False:
        return str(value).lower()
    if isinstance(value, INTEGERS):
        return "%d" % value
    if is_text(value):
        if not isinstance(value, bytes):
            value = value.encode("unicode_escape")
        shown = value.decode("latin-1").replace("\n", "\\n")
        if len(shown) > 1000:
            shown = "%s... (%d in all)" % (shown[:1000], len(shown))
        return str('"%s"' % shown.encode("ascii", "replace").decode("ascii"))
    if isinstance(value, (list, tuple)):
        return "(%s)" % ", ".join(show(part) for part in value)
    return repr(value)


class Report(object):
    def __init__(self, about):
        self.about = about
        self.failed = False

    def check(self, name, expected, got):
        if expected == got:
            self.line("ok", "%s: %s" % (self.about, name))
            return
        if isinstance(expected, list) and isinstance(got, list) and len(expected) == len(got):
            differing = [i for i in range(len(got)) if expected[i] != got[i]]
            expected = [expected[i] for i in differing]
            got = [got[i] for i in differing]
        self.line("FAIL", "%s: %s: expected %s, got %s" %
                  (self.about, name, show(expected), show(got)))

    def fact(self, name, value):
        self.line("fact", "%s: %s" % (name, value))

    def line(self, kind, text):
        self.failed = self.failed or kind == "FAIL"
        print("%-4s %s" % (kind, text))
        sys.stdout.flush()


# ------------------------------------------------------------------------------------------------
# The checks, in groups. Each group is run once for each of its hosts.

HOSTS = {
    "no host": None,
    "a host without a version": (None, ()),
    "host 2011.4": (2011.4, ()),
    "host 2012.0": (2012.0, ()),
    "host 2013.0": (2013.0, ()),
    "host 2013.03": (2013.03, ()),
    "host 2011.4 by bytes": (2011.4, ("REALGetStringCFString",)),
    "host 2013.03 by bytes": (2013.03, ("REALGetStringCFString",))}
OLDEST_AND_NEWEST = ("host 2011.4", "host 2013.03")
groups = []


def group(name, *hosts):
    def add(checks):
        groups.append((name, hosts, checks))
        return checks
    return add


def imports_of(path):
    """Library, symbol and whether it may be absent, of all that a Mach-O bundle needs; nothing for
    another kind of file."""
    with open(path, "rb") as file:
        content = file.read()
    if content[:4] != b"\xCE\xFA\xED\xFE":
        return None
    count, = struct.unpack("<I", content[16:20])

    def name(start):
        return str(content[start:content.index(b"\0", start)].decode("ascii"))

    libraries, imports, at = [], [], 28
    for _ in range(count):
        command, size = struct.unpack("<2I", content[at:at + 8])
        if command in (0xC, 0x80000018):  # LC_LOAD_DYLIB, LC_LOAD_WEAK_DYLIB
            libraries.append(name(at + struct.unpack("<I", content[at + 8:at + 12])[0]))
        if command == 0x2:  # LC_SYMTAB
            symbols, symbol_count, strings, _ = struct.unpack("<4I", content[at + 8:at + 24])
        at += size
    for i in range(symbol_count):
        entry = content[symbols + 12 * i:symbols + 12 * (i + 1)]
        text, kind, _, about, _ = struct.unpack("<IBBHI", entry)
        if kind & 0x0F == 0x01:  # undefined, external
            symbol = name(strings + text)
            if symbol.startswith("_"):  # the others are the dynamic linker's own
                imports.append((libraries[(about >> 8) - 1], symbol[1:], bool(about & 0x40)))
    return imports


@group("loading", "no host")
def check_loading(report, options):
    imports = imports_of(options.plugin)
    if imports is not None:
        needed = [(library, name) for library, name, weak in imports if not weak]
        report.check("the system has every symbol that the plug-in must have", [],
                     [name for library, name in needed if not system.provides(library, name)])
        absent = [name for library, name, weak in imports
                  if weak and not system.provides(library, name)]
        report.fact("symbols absent that may be", " ".join(absent) or "none")
    entry, why = system.entry(options.plugin)
    report.check("the plug-in loads, every symbol bound, and has its entry",
                 (True, ""), (bool(entry), why or ""))


RECORD = ["version", "name", "superName", "dataSize", "forSystemUse", "constructor", "destructor",
          "properties", "propertyCount", "methods", "methodCount", "events", "eventCount",
          "eventInstances", "eventInstanceCount", "interfaces", "bindDescriptions",
          "bindDescriptionCount", "constants", "constantCount", "flags", "sharedProperties",
          "sharedPropertyCount", "sharedMethods", "sharedMethodCount", "word 25", "word 26",
          "word 27", "word 28"]
INTERFACES = {None: 9, 2011.4: 9, 2012.0: 10, 2013.0: 11, 2013.03: 12}


def expected_record(interface, name, methods, events, constants, shared):
    counts = {"property": 1, "method": len(methods), "event": len(events),
              "constant": len(constants), "sharedMethod": len(shared)}
    lists = {"properties": 1, "methods": counts["method"], "events": counts["event"],
             "constants": counts["constant"], "sharedMethods": counts["sharedMethod"]}
    values = {"version": interface, "name": name, "dataSize": 16, "flags": 4,
              "constructor": "an address", "destructor": "an address"}
    values.update((list_name, "an address" if count else 0)
                  for list_name, count in lists.items())
    values.update((kind + "Count", count) for kind, count in counts.items())
    fields = RECORD[:25] if interface <= 9 else RECORD
    return [(field, values.get(field, 0)) for field in fields]


def seen_record(words):
    seen = []
    for field, word in zip(RECORD, words):
        if field == "name":
            word = str(text_at(word))
        elif field in ("constructor", "destructor", "properties", "methods", "events", "constants",
                       "sharedMethods") and word:
            word = "an address"
        seen.append((field, word))
    return seen


@group("records", "a host without a version", "host 2011.4", "host 2012.0", "host 2013.0",
       "host 2013.03")
def check_records(report, host):
    interface = INTERFACES[host.version]
    report.check("the interface version announced", interface, host.interface)
    report.check("the classes, in their order", [name for name, _, _, _, _ in CLASSES], host.order)
    more = [] if interface <= 9 else [0, 0]  # attributes and their count

    def seen(of, where, describe):
        return [describe(list(entry)) for entry in of.entries[where]]

    for name, methods, events, constants, shared in CLASSES:
        if name not in host.classes:
            continue
        of = host.classes[name]
        report.check(name + ", the record word by word",
                     expected_record(interface, name, methods, events, constants, shared),
                     seen_record(of.words))
        report.check(name + ", the property",
                     [[0, "Handle", "Integer", 6, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0, 0, 0] + more],
                     seen(of, PROPERTIES, lambda entry: [entry[0], str(text_at(entry[1])),
                                                         str(text_at(entry[2]))] + entry[3:]))

        def method(entry):
            return [bool(entry[0]), bool(entry[1]), str(text_at(entry[2]))] + entry[3:]

        report.check(name + ", the methods",
                     [[True, COMPUTED in entry, entry[0], 4] + more for entry in methods],
                     seen(of, METHODS, method))
        report.check(name + ", the shared methods",
                     [[True, False, declaration, 4] + more for declaration in shared],
                     seen(of, SHARED_METHODS, method))
        report.check(name + ", the events", [[declaration, 0] + more for declaration in events],
                     seen(of, EVENTS, lambda entry: [str(text_at(entry[0]))] + entry[1:]))
        report.check(name + ", the constants",
                     [[declaration, 0, 0] + more for declaration in constants],
                     seen(of, CONSTANTS, lambda entry: [str(text_at(entry[0]))] + entry[1:]))


@group("objects", *OLDEST_AND_NEWEST)
def check_objects(report, host):
    for name, methods, _, _, _ in CLASSES:
        fields = 2 if name == "SUUpdaterKVZ" else 1
        with Pool():
            thing = host.instance(name)
            empty = dict((entry[0], 0) for entry in methods
                         if "Constructor" not in entry[0] and "Destructor" not in entry[0])
            got = dict((declaration, host.get(thing, declaration, 0) or 0)
                       for declaration in empty)
            listing = "items as SUAppcastItemKVZ()"
            if listing in empty:
                empty[listing], got[listing] = ("array", []), host.value(got[listing])
            report.check(name + ", an empty instance answers nothing",
                         sorted(empty.items()), sorted(got.items()))
            report.check(name + ", and holds nothing", [0] * fields,
                         [host.field(thing, i) for i in range(fields)])
            host.unlock(thing.handle)
        report.check(name + ", made and let go without an exception", [], host.exceptions())
    report.check("the companion plug-in is asked to prepare once", 1, host.prepared)

    with Pool():
        comparison = host.instance("SUVersionComparisonKVZ")
        host.get(comparison, "Constructor")
        comparator = host.field(comparison)
        report.check("the comparator's class", "MySUVersionComparison", class_name(comparator))
        report.check("the comparator has the record's reference alone", 1,
                     send_for_integer(comparator, "retainCount"))
        report.check("the registry leads from the comparator to its instance", comparison.handle,
                     host.registered(comparator))
        host.get(comparison, "Constructor")
        report.check('SUVersionComparisonKVZ, "Constructor" twice',
                     [("UnsupportedOperationException", CALLED_TOO_OFTEN, 0)], host.exceptions())
        report.check("the comparator stays", comparator, host.field(comparison))
        send(comparator, "retain")
        host.unlock(comparison.handle)
        report.check("the comparator outlives its instance with one reference less", 1,
                     send_for_integer(comparator, "retainCount"))
        report.check("the registry forgets it", 0, host.registered(comparator))
        send(comparator, "release")

    # The framework's classes need the framework: a program's own "Handle" stands in for it.
    standing = stand_in()
    for name, declaration in (("SUAppcastItemKVZ", "Constructor"), ("SUAppcastKVZ", "Constructor"),
                              ("SUUpdaterKVZ", "Constructor"),
                              ("SUUpdaterKVZ", "Constructor(Bundle as folderitem)")):
        with Pool():
            thing = host.instance(name)
            if name != "SUUpdaterKVZ":
                host.get(thing, declaration)
                report.check('%s, "%s" without a framework' % (name, declaration), (0, []),
                             (host.field(thing), host.exceptions()))
            host.set_field(thing, send(standing, "retain"))
            host.get(thing, declaration, 0)
            report.check('%s, "%s" twice' % (name, declaration),
                         ([("UnsupportedOperationException", CALLED_TOO_OFTEN, 0)], standing),
                         (host.exceptions(), host.field(thing)))
            host.unlock(thing.handle)
        report.check("%s gives its reference back" % name, 1,
                     send_for_integer(standing, "retainCount"))
    report.check("an updater is told that its delegate is gone", [("setDelegate:", 0)] * 2, told)

    with Pool():
        updater, delegate = updater_with(host)
        report.check('SUUpdaterKVZ, "Constructor" without a framework',
                     (0, "MySUUpdaterDelegateInformalProtocol", []),
                     (host.field(updater), class_name(delegate), host.exceptions()))
        send(delegate, "retain")
        host.unlock(updater.handle)
        report.check("the delegate is released once", 1, send_for_integer(delegate, "retainCount"))
        send(delegate, "release")

    # An item that is reported twice is one instance as long as that lives.
    reported = []

    def found(target, item):
        host.lock(item)
        reported.append(item)

    with Pool():
        updater, delegate = updater_with(
            host, ("didFindValidUpdate(update as SUAppcastItemKVZ)", found))
        for _ in range(2):
            send(delegate, "updater:didFindValidUpdate:", 0, standing)
        report.check("an item reported twice is one instance", True,
                     len(reported) == 2 and reported[0] == reported[1] == host.registered(standing))
        report.check("which holds the item with one reference", [standing, 2],
                     [host.field(host.thing(reported[0])),
                      send_for_integer(standing, "retainCount")])
        for item in reported:
            host.unlock(item)
        report.check("and gives it back", (1, 0), (send_for_integer(standing, "retainCount"),
                                                   host.registered(standing)))
        host.unlock(updater.handle)


@group("comparator", *OLDEST_AND_NEWEST)
def check_comparator(report, host):
    asked, answer = [], [0]

    def compare(target, first, second):
        texts = [handle and host.thing(handle, "String").bytes.decode("utf-8")
                 for handle in (first, second)]
        asked.append((target, texts[0], texts[1]))
        return answer[0]

    event = "compareVersion(VersionA as string, VersionB as string) as integer"
    with Pool():
        comparison = host.instance("SUVersionComparisonKVZ", [(event, compare)])
        host.get(comparison, "Constructor")
        comparator = host.field(comparison)
        older, newer = text(b"1.0"), text(b"1.1 \xc3\xa4")

        def invoke():
            """The message as Cocoa itself sends it, by the method's own signature."""
            name = selector("compareVersion:toVersion:")
            invocation = send("NSInvocation", "invocationWithMethodSignature:",
                              send(comparator, "methodSignatureForSelector:", name))
            send(invocation, "setTarget:", comparator)
            send(invocation, "setSelector:", name)
            for i, version in enumerate((older, newer)):
                argument = memory(4)
                put(argument, "I", string(version))
                send(invocation, "setArgument:atIndex:", argument, 2 + i)
            send(invocation, "invoke")
            result = memory(4)
            send(invocation, "getReturnValue:", result)
            return struct.unpack("=i", ctypes.string_at(result, 4))[0]

        for answer[0] in (-1, 0, 1, 7):
            report.check("the program's answer %d reaches Cocoa" % answer[0], answer[0], invoke())
        report.check("the event has the versions in their order",
                     [(comparison.handle, older, newer)] * 4, asked)
        del asked[:]
        send_for_integer(comparator, "compareVersion:toVersion:", 0, string(newer))
        report.check("no version is the nil string", [(comparison.handle, 0, newer)], asked)
        report.check("a copy is the same object", comparator,
                     send(send(comparator, "copy"), "autorelease"))
        send(comparator, "retain")
        host.unlock(comparison.handle)
        del asked[:]
        report.check("after the instance is gone the answer is ascending, and nobody is asked",
                     (-1, []), (invoke(), asked))
        send(comparator, "release")

        silent = host.instance("SUVersionComparisonKVZ")
        host.get(silent, "Constructor")
        report.check("without a handler the answer is ascending", -1,
                     send_for_integer(host.field(silent), "compareVersion:toVersion:",
                                      string(older), string(older)))
        host.unlock(silent.handle)


def samples():
    letter, umlaut, pair = text(b"a"), text(b"\xc3\xa4"), text(b"\xf0\x9f\x98\x80")
    yield "ASCII", text(b"Version 3.0")
    yield "umlauts", text(b"\xc3\x84pfel, \xc3\x96l, \xc3\xbcber, Stra\xc3\x9fe")
    yield "surrogate pairs", text(b"\xf0\x9f\x98\x80 and \xf0\x9d\x84\x9e")
    for count in (99, 100, 10000):
        yield "%d units of ASCII" % count, letter * count
        yield "%d units of umlauts" % count, umlaut * count
        yield "%d units of surrogate pairs" % count, pair * (count // 2) + letter * (count % 2)


@group("text", "host 2011.4", "host 2011.4 by bytes", "host 2013.0", "host 2013.03",
       "host 2013.03 by bytes")
def check_text(report, host):
    standing = stand_in()
    item = around(host, "SUAppcastItemKVZ", standing)
    appcast = around(host, "SUAppcastKVZ", standing)

    def to_cocoa(given):
        del told[:]
        host.set(appcast, "UserAgentString as string", given.handle if given else 0)
        if given:
            host.unlock(given.handle)
        return [(name, string_text(value)) for name, value in told]

    for name, sample in samples():
        with Pool():
            answers[standing, "title"] = string(sample)
            handle = host.get(item, "title as string")
            encoding = host.thing(handle).encoding if handle else None
            report.check(name + " from Cocoa", (UTF_8, sample), (encoding, host.text(handle)))
            report.check(name + " to Cocoa", [("setUserAgentString:", sample)],
                         to_cocoa(host.string(sample)))
            report.check(name + " to Cocoa, from UTF-16", [("setUserAgentString:", sample)],
                         to_cocoa(host.string(sample, UTF_16)))
    with Pool():
        answers[standing, "title"] = string(text(b""))
        report.check("empty text from Cocoa is nil", 0, host.get(item, "title as string"))
        report.check("nil to Cocoa", [("setUserAgentString:", None)], to_cocoa(None))
        umlauts = text(b"\xc3\x84pfel")
        for name, encoding in (("Mac Roman", MAC_ROMAN), ("no known encoding", ANY)):
            report.check("umlauts in %s to Cocoa" % name, [("setUserAgentString:", umlauts)],
                         to_cocoa(host.string(umlauts, encoding)))
    report.check("no exception", [], host.exceptions())
    for thing in (item, appcast):
        host.unlock(thing.handle)


@group("exceptions", *OLDEST_AND_NEWEST)
def check_exceptions(report, host):
    # A plain object understands none of the framework's messages: Cocoa raises for each of them.
    plain = send(send("NSObject", "alloc"), "init")
    unguarded = ["_exception as NSExceptionKVZ", "InvokeUpdate"]
    unknown_key = ["UserAgentString as string", "incrementalData as memoryblock"]

    def checked(about, name, work, expected_answer):
        with Pool():
            with Log() as log:
                got = work()
            if about == "items as SUAppcastItemKVZ()":
                got = host.value(got)
            report.check("%s raises one exception in the program" % about,
                         (expected_answer, [("NSExceptionKVZ", name)]), (got, host.exceptions()))
            entries = [entry[:len(name) + 4] for entry in log.entries]
            report.check("%s, after one line in the log" % about, (["A %s: " % name], True, True),
                         (entries, ", Info: " in "".join(log.entries), host.logged_before))

    for class_of, methods, _, _, _ in CLASSES:
        if class_of == "SUVersionComparisonKVZ":
            continue
        thing = around(host, class_of, plain)
        for entry in methods:
            declaration = entry[0]
            if declaration in unguarded or "Constructor" in declaration:
                continue
            expected = {Nothing: None, Double: 0.0}.get(signature(declaration)[0], 0)
            if declaration == "items as SUAppcastItemKVZ()":
                expected = ("array", [])
            key = declaration in unknown_key
            checked(declaration, "NSUnknownKeyException" if key else "NSInvalidArgumentException",
                    lambda: host.get(thing, declaration, 0), expected)
            if COMPUTED in entry:
                checked("setting " + declaration, "NSInvalidArgumentException",
                        lambda: host.set(thing, declaration, 0), None)
        if class_of == "SUUpdaterKVZ":
            checked("the destructor of SUUpdaterKVZ", "NSInvalidArgumentException",
                    lambda: host.unlock(thing.handle), None)
        else:
            host.unlock(thing.handle)
    # The updater's destructor had raised before it could release.
    report.check("references of the object that raised", 2, send_for_integer(plain, "retainCount"))

    feed_parameters = "feedParametersForUpdater(sendingProfile as boolean) as dictionary()"
    asking = "feedParametersForUpdater:sendingSystemProfile:"

    def parameters_with_nil():
        first = host.dictionary([("key", host.variant("string", text(b"edition")))])
        return host.array("variant", [first, None]).handle

    def ask(about, handler, raised, logged):
        """An event whose answer makes Cocoa raise after the handler has returned."""
        held = host.alive()
        with Pool():
            updater, delegate = updater_with(host, (feed_parameters, handler))
            with Log() as log:
                got = send(delegate, asking, 0, False)
            report.check(about + ": what was converted before it is the answer", 1,
                         send_for_integer(got, "count") if got else 0)
            report.check(about + ": the program has", raised, host.exceptions())
            entries = [entry.split(":")[0] if entry.startswith("A NS") else "another"
                       for entry in log.entries]
            report.check(about + ": the log has", logged, entries)
            host.unlock(updater.handle)
            # What the program answered is not given back when its conversion raises.
            left = [thing for thing in host.things.values() if thing.kind == "Array"
                    and thing.references > 0]
            report.check(about + ": the answered array is all that stays", 1, len(left))
            host.unlock(left[0].handle)
        report.check(about + ": nothing else stays", held, host.alive())

    ask("an exception in a callback", lambda target, profile: parameters_with_nil(),
        [], ["another"])

    item = around(host, "SUAppcastItemKVZ", plain)

    def nested(target, profile):
        host.get(item, "title as string")
        return parameters_with_nil()

    ask("one in a callback after one in a member inside the event", nested,
        [("NSExceptionKVZ", "NSInvalidArgumentException")],
        ["A NSInvalidArgumentException", "another"])

    def twice_nested(target, profile):
        other, delegate = updater_with(
            host, (feed_parameters, lambda target, profile: parameters_with_nil()))
        send(delegate, asking, 0, False)
        host.unlock(other.handle)
        for thing in list(host.things.values()):
            if thing.kind == "Array" and thing.references > 0:
                host.unlock(thing.handle)
        host.get(item, "title as string")
        return parameters_with_nil()

    ask("one in a callback inside another callback's event", twice_nested,
        [("NSExceptionKVZ", "NSInvalidArgumentException")],
        ["another", "A NSInvalidArgumentException", "another"])
    answers[plain, "title"] = 0
    host.unlock(item.handle)


@group("events", *OLDEST_AND_NEWEST)
def check_events(report, host):
    declarations = CLASSES[2][2]
    selectors = ["pathToRelaunchForUpdater:", "versionComparatorForUpdater:",
                 "updaterWillRelaunchApplication:", "updaterDidNotFindUpdate:",
                 "updaterShouldPromptForPermissionToCheckForUpdates:",
                 "updater:didFindValidUpdate:", "updater:willInstallUpdate:",
                 "updater:didFinishLoadingAppcast:", "bestValidUpdateInAppcast:forUpdater:",
                 "feedParametersForUpdater:sendingSystemProfile:",
                 "updater:shouldPostponeRelaunchForUpdate:untilInvoking:"]

    def claims(delegate):
        return [name for name in selectors
                if send_for_boolean(delegate, "respondsToSelector:", selector(name))]

    with Pool():
        updater, delegate = updater_with(host)
        report.check("without handlers only two callbacks are claimed", selectors[9:],
                     claims(delegate))
        host.unlock(updater.handle)
        for declaration, name in zip(declarations[:9], selectors):
            updater, delegate = updater_with(host, (declaration, lambda *arguments: 0))
            report.check("a handler of %s claims its callback alone" % declaration.split("(")[0],
                         sorted([name] + selectors[9:]), sorted(claims(delegate)))
            host.unlock(updater.handle)

    with Pool():
        item, appcast, seen = stand_in(), stand_in(), []
        comparison = host.instance("SUVersionComparisonKVZ")
        host.get(comparison, "Constructor")
        best = around(host, "SUAppcastItemKVZ", item)
        answered = []

        def answer(name, value=0):
            def handle(target, *arguments):
                held = [(host.thing(argument).kind, host.field(host.thing(argument)))
                        if argument > 1 else argument for argument in arguments]
                seen.append((name, target, held, on_main_thread()))
                if value and name not in ("postpone", "permission"):
                    host.lock(value)
                return value
            return handle

        path = host.string(text(b"/Applications/\xc3\x84.app"))
        parameters = host.array("variant", [host.dictionary(
            [("key", host.variant("string", text(b"edition"))), ("value", None)])])
        names = ["path", "comparator", "relaunch", "none", "permission", "found", "install",
                 "loaded", "best", "parameters", "postpone"]
        values = [path.handle, comparison.handle, 0, 0, 1, 0, 0, 0, best.handle,
                  parameters.handle, 1]
        updater, delegate = updater_with(host, *[
            (declaration, answer(name, value))
            for declaration, name, value in zip(declarations, names, values)])

        def check(name, message_name, arguments, held, expected, look=lambda got: got):
            del seen[:]
            got = look(send(delegate, message_name, *arguments))
            report.check(message_name + " reaches the program, and the answer Cocoa",
                         ([(name, updater.handle, held, True)], expected), (seen, got))

        an_item, a_feed = ("SUAppcastItemKVZ", item), ("SUAppcastKVZ", appcast)
        anything = 0

        def nothing(got):
            return anything

        check("path", selectors[0], [0], [], text(b"/Applications/\xc3\x84.app"), string_text)
        check("comparator", selectors[1], [0], [], host.field(comparison))
        check("relaunch", selectors[2], [0], [], anything, nothing)
        check("none", selectors[3], [0], [], anything, nothing)
        check("permission", selectors[4], [0], [], 1, lambda got: got & 0xFF)
        check("found", selectors[5], [0, item], [an_item], anything, nothing)
        check("install", selectors[6], [0, item], [an_item], anything, nothing)
        check("loaded", selectors[7], [0, appcast], [a_feed], anything, nothing)
        check("best", selectors[8], [appcast, 0], [a_feed], item)
        check("parameters", selectors[9], [0, 1], [1],
              ("array", [("dictionary", [(("string", "key"), ("string", "edition")),
                                         (("string", "value"), None)])]), look_cocoa)

        host.get(updater, "InvokeUpdate")
        report.check('"InvokeUpdate" with nothing postponed',
                     [("NilObjectException", "invocation is nil!", 0)], host.exceptions())
        relaunch = selector("relaunch")
        invocation = send("NSInvocation", "invocationWithMethodSignature:",
                          send(item, "methodSignatureForSelector:", relaunch))
        send(invocation, "setTarget:", item)
        send(invocation, "setSelector:", relaunch)
        check("postpone", selectors[10], [0, item, invocation], [an_item], 1,
              lambda got: got & 0xFF)
        del told[:]
        host.get(updater, "InvokeUpdate")
        report.check('"InvokeUpdate" completes what was postponed', [("relaunch", 0)], told)
        host.get(updater, "InvokeUpdate")
        report.check("once", [("NilObjectException", "invocation is nil!", 0)], host.exceptions())
        for thing in (path, parameters, best, comparison, updater):
            host.unlock(thing.handle)
    report.check("the item and the feed have no reference too many", [1, 1],
                 [send_for_integer(thing, "retainCount") for thing in (item, appcast)])


REFERENCE_DATE = 978307200  # 1 January 2001, from which Cocoa counts, in seconds from 1970


def local_fields(moment):
    return tuple(time.localtime(moment)[:6])


def look_cocoa(thing):
    """What a Cocoa object holds, in the words that Host.look has for the host's values."""
    if not thing or is_a(thing, "NSNull"):
        return None
    if is_a(thing, "NSString"):
        return "string", string_text(thing)
    if is_a(thing, "NSNumber"):
        code = text_at(send(thing, "objCType"))
        if code in ("c", "B"):
            return "boolean", send_for_boolean(thing, "boolValue")
        if code in ("f", "d"):
            return "real", send_for_double(thing, "doubleValue")
        return "whole", send_for_long(thing, "longLongValue")
    if is_a(thing, "NSData"):
        return "memoryblock", ctypes.string_at(send(thing, "bytes"), send(thing, "length"))
    if is_a(thing, "NSDate"):
        return "date", local_fields(
            REFERENCE_DATE + send_for_double(thing, "timeIntervalSinceReferenceDate"))
    if is_a(thing, "NSURL"):
        return "url", string_text(send(thing, "path"))
    if is_a(thing, "NSArray"):
        return "array", [look_cocoa(send(thing, "objectAtIndex:", i))
                         for i in range(send(thing, "count"))]
    if is_a(thing, "NSDictionary"):
        keys = send(thing, "allKeys")
        keys = [send(keys, "objectAtIndex:", i) for i in range(send(keys, "count"))]
        return "dictionary", sorted((look_cocoa(key), look_cocoa(send(thing, "objectForKey:", key)))
                                    for key in keys)
    if is_a(thing, "NSValue"):
        code = str(text_at(send(thing, "objCType")))
        for wrapper, expected, getter in RECORDS:
            if code == expected:
                return wrapper, struct.unpack("=" + RECORD_WRAPPERS[wrapper],
                                              send_for_record(thing, getter))
    return class_name(thing), thing


RECORDS = [("NSRectKVZ", "{_NSRect={_NSPoint=ff}{_NSSize=ff}}", "rectValue"),
           ("NSSizeKVZ", "{_NSSize=ff}", "sizeValue"),
           ("NSPointKVZ", "{_NSPoint=ff}", "pointValue"),
           ("NSRangeKVZ", "{_NSRange=II}", "rangeValue")]

# How each NSNumber is made, of a value that shows its kind at its best.
NUMBERS = [("numberWithBool:", Byte(1)), ("numberWithChar:", ctypes.c_int8(-65)),
           ("numberWithUnsignedChar:", Byte(200)), ("numberWithShort:", ctypes.c_int16(-30000)),
           ("numberWithUnsignedShort:", ctypes.c_uint16(60000)), ("numberWithInt:", Int(-70000)),
           ("numberWithUnsignedInt:", Word(4000000000)), ("numberWithLong:", Int(-80000)),
           ("numberWithUnsignedLong:", Word(4100000000)),
           ("numberWithLongLong:", Long(-(1 << 40))),
           ("numberWithUnsignedLongLong:", ctypes.c_uint64((1 << 32) + 5)),
           ("numberWithUnsignedLongLong:", ctypes.c_uint64((1 << 63) + 7)),
           ("numberWithFloat:", Single(0.1)), ("numberWithDouble:", Double(0.1))]


def expected_number(number):
    """What the host is to get, which depends on the type that the number says it has."""
    code = text_at(send(number, "objCType"))
    if code == "c":
        return "boolean", send_for_boolean(number, "boolValue")
    if code in ("C", "s", "S", "i", "l"):
        return "int32", send_for_integer(number, "intValue")
    if code in ("I", "L"):
        return "uint32", send(number, "unsignedIntValue")
    if code == "q":
        return "int64", send_for_long(number, "longLongValue")
    if code == "Q":  # the lower half alone, on purpose
        return "uint64", send(number, "unsignedLongValue")
    if code == "f":
        return "single", send_for_double(number, "doubleValue")
    return "double", send_for_double(number, "doubleValue")


@group("values from Cocoa", *OLDEST_AND_NEWEST)
def check_values_from_cocoa(report, host):
    standing = stand_in()
    item = around(host, "SUAppcastItemKVZ", standing)
    folder = os.path.realpath(tempfile.mkdtemp())
    there, missing = os.path.join(folder, "there.txt"), os.path.join(folder, "missing.txt")
    nowhere = os.path.join(folder, "no folder", "missing.txt")
    open(there, "w").close()
    there, missing, nowhere = [text(path.encode("utf-8")) if bytes is not str else text(path)
                               for path in (there, missing, nowhere)]

    def through(cocoa):
        answers[standing, "propertiesDictionary"] = dictionary([(text(b"value"), cocoa)])
        handle = host.get(item, "propertiesDictionary as dictionary")
        kind, pairs = host.value(handle)
        return pairs[0][1] if pairs and pairs[0][0] == ("string", "value") else (kind, pairs)

    def check(name, expected, cocoa):
        with Pool():
            cocoa = cocoa()
            if expected is not None and not isinstance(expected, tuple):
                expected = expected(cocoa)
            report.check(name, expected, through(cocoa))

    for maker, value in NUMBERS:
        check("%s %s" % (maker[:-1], value.value), expected_number,
              lambda: send("NSNumber", maker, value))
    moment = 1617000123.75
    check("a date, its fraction dropped", ("date", local_fields(moment)),
          lambda: send("NSDate", "dateWithTimeIntervalSinceReferenceDate:",
                       moment - REFERENCE_DATE))
    check("data", ("memoryblock", b"\x00\x01\xff\x00"),
          lambda: send("NSData", "dataWithBytes:length:", b"\x00\x01\xff\x00", 4))
    check("no data", None, lambda: send("NSData", "data"))
    check("text", ("string", text(b"\xc3\xa4")), lambda: string(text(b"\xc3\xa4")))
    check("NSNull", None, lambda: send("NSNull", "null"))
    check("an array", ("array", [("string", "a"), ("int32", 5), None, ("array", [])]),
          lambda: array([string(text(b"a")), send("NSNumber", "numberWithInt:", 5),
                         send("NSNull", "null"), array([])]))
    check("a set", ("array", [("string", "a")]),
          lambda: send("NSSet", "setWithObject:", string(text(b"a"))))
    check("dictionaries in a dictionary",
          ("dictionary", [(("string", "inner"), ("dictionary", [
              (("string", "deep"), ("dictionary", [(("string", "x"), ("string", "y"))])),
              (("string", "more"), ("string", "z"))])),
              (("string", "outer"), ("string", "o"))]),
          lambda: dictionary([
              (text(b"inner"), dictionary([
                  (text(b"deep"), dictionary([(text(b"x"), string(text(b"y")))])),
                  (text(b"more"), string(text(b"z")))])),
              (text(b"outer"), string(text(b"o")))]))
    check("the URL of a file", ("folderitem", there),
          lambda: send("NSURL", "fileURLWithPath:", string(there)))
    check("the URL of a folder", ("folderitem", os.path.dirname(there)),
          lambda: send("NSURL", "fileURLWithPath:", string(os.path.dirname(there))))
    check("the URL of a file that is not there", ("folderitem", missing),
          lambda: send("NSURL", "fileURLWithPath:", string(missing)))
    check("the URL of a file in a folder that is not there",
          lambda url: ("string", string_text(send(url, "absoluteString"))),
          lambda: send("NSURL", "fileURLWithPath:", string(nowhere)))
    web = text(b"http://example.com/a?b=c#d")
    check("the URL of a page", ("string", web),
          lambda: send("NSURL", "URLWithString:", string(web)))
    for wrapper, code, getter in RECORDS:
        layout = RECORD_WRAPPERS[wrapper]
        values = [1.5, -2.0, 3.25, 4.0][:int(layout[0])] if "f" in layout else [7, 9]
        space = memory(16)
        put(space, layout, *values)
        check("an NSValue of type %s" % code, (wrapper, tuple(values)),
              lambda: send("NSValue", "valueWithBytes:objCType:", space, code.encode("ascii")))

    # Wrapped objects have a class of the host's, the nearest that it has.
    with Pool():
        error = send(send("NSError", "alloc"), "initWithDomain:code:userInfo:",
                     string(text(b"domain")), 5, 0)
        first = through(error)
        answers[standing, "propertiesDictionary"] = dictionary([(text(b"value"), error)])
        held = [host.get(item, "propertiesDictionary as dictionary") for _ in range(2)]
        values = [host.thing(handle).pairs[0][1] for handle in held]
        report.check("an NSError", ("NSErrorKVZ", error), first)
        report.check("an NSError is one instance while that lives", True, values[0] == values[1])
        for handle in held:
            host.unlock(handle)
    report.check("and has no reference too many", 1, send_for_integer(error, "retainCount"))
    plain = send(send("NSObject", "alloc"), "init")
    is_cf = send_for_boolean(plain, "respondsToSelector:", selector("_cfTypeID")) and \
        send(plain, "_cfTypeID") > 0
    check("a plain object", ("CFObjectKVZ" if is_cf else "NSObjectKVZ", plain), lambda: plain)
    report.check("and has no reference too many", 1, send_for_integer(plain, "retainCount"))
    made, wrapper = system.core_foundation_object()
    check("a Core Foundation object", (wrapper, made), lambda: made)
    check("an object of a class that the host does not wrap", None,
          lambda: send("NSTimeZone", "timeZoneForSecondsFromGMT:", 3600))

    report.check("no exception", [], host.exceptions())
    host.unlock(item.handle)


@group("values to Cocoa", *OLDEST_AND_NEWEST)
def check_values_to_cocoa(report, host):
    folder = text(os.path.realpath(tempfile.mkdtemp()).encode("utf-8"))
    wrapped = send(send("NSObject", "alloc"), "init")
    given = []
    updater, delegate = updater_with(
        host, ("feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
               lambda target, profile: given.pop()))

    def through(thing):
        given.append(host.array("variant", [host.dictionary([("value", thing)])]).handle)
        kind, elements = look_cocoa(
            send(delegate, "feedParametersForUpdater:sendingSystemProfile:", 0, False))
        return elements[0][1][0][1] if elements else (kind, elements)

    def check(name, expected, thing):
        with Pool():
            report.check(name, expected, through(thing))

    def record(name, *values):
        thing = host.instance(name)
        put(thing.handle + host.position, RECORD_WRAPPERS[name], *values)
        return thing

    def wrapper(name):
        thing = host.instance(name)
        host.set_field(thing, send(wrapped, "retain"))
        return thing

    def memory_block(content):
        thing = host.memory_block(len(content))
        ctypes.memmove(thing.data, content, len(content))
        return thing

    tenth = struct.unpack("=f", struct.pack("=f", 0.1))[0]
    check("text", ("string", text(b"\xc3\xa4 \xf0\x9f\x98\x80")),
          host.variant("string", text(b"\xc3\xa4 \xf0\x9f\x98\x80")))
    check("an Int32", ("whole", -70000), host.variant("int32", -70000))
    check("an Int64", ("whole", -(1 << 40)), host.variant("int64", -(1 << 40)))
    check("a Single", ("real", tenth), host.variant("single", 0.1))
    check("a Double", ("real", 0.1), host.variant("double", 0.1))
    check("a Boolean, true", ("boolean", True), host.new("Variant", type="boolean", value=2))
    check("a Boolean, false", ("boolean", False), host.new("Variant", type="boolean", value=0))
    check("nil", None, None)
    check("a Date", ("date", (2021, 3, 7, 9, 5, 30)), host.date(2021, 3, 7, 9, 5, 30))
    check("a MemoryBlock", ("memoryblock", b"\x00\x01\xff\x00"), memory_block(b"\x00\x01\xff\x00"))
    check("a FolderItem", ("url", folder), host.folder_item(folder))
    check("a FolderItem that is not there", ("url", folder + "/missing.txt"),
          host.folder_item(folder + "/missing.txt"))
    check("a Dictionary in a Dictionary",
          ("dictionary", [(("string", "deep"), ("dictionary", [(("string", "x"), ("whole", 1))])),
                          (("string", "more"), ("string", "z"))]),
          host.dictionary([("deep", host.dictionary([("x", host.variant("int32", 1))])),
                           ("more", host.variant("string", text(b"z")))]))
    check("an empty Dictionary", ("dictionary", []), host.dictionary([]))
    check("an array of Int32", ("array", [("whole", 1), ("whole", -2)]),
          host.array("int32", [1, -2]))
    check("an array of Int64", ("array", [("whole", 1 << 40)]), host.array("int64", [1 << 40]))
    check("an array of Single", ("array", [("real", tenth)]), host.array("single", [0.1]))
    check("an array of Double", ("array", [("real", 0.1)]), host.array("double", [0.1]))
    check("an array of String", ("array", [("string", text(b"\xc3\xa4"))]),
          host.array("string", [host.string(text(b"\xc3\xa4"))]))
    check("an array of Variant", ("array", [("string", "a"), ("array", [("whole", 3)])]),
          host.array("variant", [host.variant("string", text(b"a")), host.array("int32", [3])]))
    check("an NSRectKVZ", ("NSRectKVZ", (1.5, -2.0, 3.25, 4.0)),
          record("NSRectKVZ", 1.5, -2.0, 3.25, 4.0))
    check("an NSSizeKVZ", ("NSSizeKVZ", (3.25, 4.0)), record("NSSizeKVZ", 3.25, 4.0))
    check("an NSPointKVZ", ("NSPointKVZ", (1.5, -2.0)), record("NSPointKVZ", 1.5, -2.0))
    check("an NSRangeKVZ", ("NSRangeKVZ", (7, 9)), record("NSRangeKVZ", 7, 9))
    check("an NSObjectKVZ", ("NSObject", wrapped), wrapper("NSObjectKVZ"))
    check("a CFObjectKVZ", ("NSObject", wrapped), wrapper("CFObjectKVZ"))
    check("an exception object of the host's", None, host.instance("RuntimeException"))

    report.check("no exception", [], host.exceptions())
    report.check("a wrapped object has no reference too many", 1,
                 send_for_integer(wrapped, "retainCount"))
    host.unlock(updater.handle)


@group("members", *OLDEST_AND_NEWEST)
def check_members(report, host):
    folder = text(os.path.realpath(tempfile.mkdtemp()).encode("utf-8"))
    with Pool():
        standing = stand_in()
        feed = send("NSURL", "URLWithString:", string(text(b"http://example.com/feed.xml")))
        moment = 1617000123.0
        date = send("NSDate", "dateWithTimeIntervalSinceReferenceDate:", moment - REFERENCE_DATE)
        answers.update({
            (standing, "feedURL"): feed, (standing, "releaseNotesURL"): feed,
            (standing, "fileURL"): feed,
            (standing, "lastUpdateCheckDate"): date, (standing, "date"): date,
            (standing, "hostBundle"): send("NSBundle", "bundleWithPath:", string(folder)),
            (standing, "updateCheckInterval"): 86400.25,
            (standing, "updateInProgress"): 1, (standing, "sendsSystemProfile"): 1,
            (standing, "userAgentString"): string(text(b"Agent/1")),
            (standing, "incrementalData"): send("NSData", "dataWithBytes:length:", b"abc", 3),
            (standing, "items"): array([standing, standing])})
        updater = around(host, "SUUpdaterKVZ", standing)
        appcast = around(host, "SUAppcastKVZ", standing)
        item = around(host, "SUAppcastItemKVZ", standing)
        for name, expected in (("automaticallyChecksForUpdates", 0), ("sendsSystemProfile", 1),
                               ("automaticallyDownloadsUpdates", 0), ("updateInProgress", 1)):
            report.check(name, expected, host.get(updater, name + " as boolean"))
        report.check("updateCheckInterval", 86400.25,
                     host.get(updater, "updateCheckInterval as double"))
        report.check("feedURL", text(b"http://example.com/feed.xml"),
                     host.text(host.get(updater, "feedURL as string")))
        report.check("lastUpdateCheckDate", ("date", local_fields(moment)),
                     host.value(host.get(updater, "lastUpdateCheckDate as date")))
        report.check("hostBundle",
                     ("folderitem", folder),
                     host.value(host.get(updater, "hostBundle as folderitem")))
        for name in ("releaseNotesURL", "fileURL"):
            report.check(name, text(b"http://example.com/feed.xml"),
                         host.text(host.get(item, name + " as string")))
        for name in ("title", "versionString", "displayVersionString", "itemDescription",
                     "DSASignature", "minimumSystemVersion"):
            of_its_own = text(b"the ") + name
            answers[standing, name] = string(of_its_own)
            report.check(name, of_its_own, host.text(host.get(item, name + " as string")))
        report.check("date", ("date", local_fields(moment)),
                     host.value(host.get(item, "date as date")))
        report.check("UserAgentString", text(b"Agent/1"),
                     host.text(host.get(appcast, "UserAgentString as string")))
        report.check("incrementalData", ("memoryblock", b"abc"),
                     host.value(host.get(appcast, "incrementalData as memoryblock")))
        listed = host.get(appcast, "items as SUAppcastItemKVZ()")
        elements = host.thing(listed).children
        report.check("items", [("SUAppcastItemKVZ", standing)] * 2,
                     [host.look(element) for element in elements])
        report.check("items, one instance for one item", True, elements[0] == elements[-1])
        host.unlock(listed)
        del told[:]
        for name in ("automaticallyChecksForUpdates", "sendsSystemProfile",
                     "automaticallyDownloadsUpdates"):
            host.set(updater, name + " as boolean", 1)
        host.set(updater, "updateCheckInterval as double", 3600.5)
        host.get(updater, "checkForUpdates")
        report.check("what is set reaches Cocoa",
                     [("setAutomaticallyChecksForUpdates:", 1), ("setSendsSystemProfile:", 1),
                      ("setAutomaticallyDownloadsUpdates:", 1),
                      ("setUpdateCheckInterval:", 3600.5), ("checkForUpdates:", 0)], told)
        for name, work in (
                ("setFeedURL:", lambda given: host.set(updater, "feedURL as string", given)),
                ("fetchAppcastFromURL:", lambda given: host.get(
                    appcast, "fetchAppcastFromURL(url as string)", given))):
            del told[:]
            given = host.string(text(b"http://example.com/other.xml"))
            work(given.handle)
            work(0)
            host.unlock(given.handle)
            report.check("%s with a URL and without" % name,
                         [(name, "http://example.com/other.xml"), (name, None)],
                         [(sent, string_text(send(url, "absoluteString")) if url else None)
                          for sent, url in told])
        report.check("no exception", [], host.exceptions())
        for thing in (updater, appcast, item):
            host.unlock(thing.handle)
    report.check("the references that were taken are given back", 1,
                 send_for_integer(standing, "retainCount"))


@group("threads", *OLDEST_AND_NEWEST)
def check_threads(report, host):
    order = []
    standing = stand_in()

    def found(target, item):
        order.append(("report", on_main_thread(), host.field(host.thing(item))))
        time.sleep(0.05)
        order.append("handled")

    def permission(target):
        order.append(("question", on_main_thread()))
        return 1

    updater, delegate = updater_with(
        host, ("didFindValidUpdate(update as SUAppcastItemKVZ)", found),
        ("updaterShouldPromptForPermissionToCheckForUpdates as boolean", permission))

    def work():
        order.append(("worker", on_main_thread()))
        send(delegate, "updater:didFindValidUpdate:", 0, standing)
        order.append("back")
        asked = send_for_boolean(delegate, "updaterShouldPromptForPermissionToCheckForUpdates:", 0)
        order.append(("answered", asked))

    answers[standing, "work:"] = work
    with Pool():
        send("NSThread", "detachNewThreadSelector:toTarget:withObject:", selector("work:"),
             standing, 0)
        wait_for(lambda: ("answered", True) in order)
        report.check("a report of a second thread arrives on the main one, which the second waits "
                     "for; a question is asked on the second",
                     [("worker", False), ("report", True, standing), "handled", "back",
                      ("question", False), ("answered", True)], order)
        wait_for(lambda: send_for_integer(standing, "retainCount") == 1)
        report.check("no exception", [], host.exceptions())
        host.unlock(updater.handle)


@group("facts", "no host")
def tell_facts(report, options):
    with Pool():
        plain = send(send("NSObject", "alloc"), "init")
        if send_for_boolean(plain, "respondsToSelector:", selector("_cfTypeID")):
            report.fact("_cfTypeID of a plain NSObject", send(plain, "_cfTypeID"))
        else:
            report.fact("_cfTypeID of a plain NSObject", "not understood")
        report.fact("objCType of each NSNumber", " ".join(
            "%s=%s" % (maker[len("numberWith"):-1], text_at(send(send("NSNumber", maker, value),
                                                                 "objCType")))
            for maker, value in NUMBERS))
        registry = selector("GetInstancesDictionaryKVZ")
        owner = cocoa_class("NSException")
        if send_for_boolean(owner, "respondsToSelector:", registry):
            report.fact("registry", description(send(owner, "GetInstancesDictionaryKVZ")))
        else:
            report.fact("registry", "no companion plug-in here")
        sizes = []
        worker = stand_in()
        answers[worker, "work:"] = lambda: sizes.append(system.stack_size())
        send("NSThread", "detachNewThreadSelector:toTarget:withObject:", selector("work:"),
             worker, 0)
        wait_for(lambda: sizes)
        report.fact("stack of a second thread", "%d bytes" % sizes[0] if sizes else "unknown")


# -- With a framework.

IDENTIFIER = "org.example.sparklekvz-check"
INFO_PLIST = """<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple Computer//DTD PLIST 1.0//EN"
  "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
<key>CFBundleIdentifier</key><string>%s</string>
<key>CFBundleName</key><string>Check</string>
<key>CFBundleExecutable</key><string>Check</string>
<key>CFBundlePackageType</key><string>APPL</string>
<key>CFBundleVersion</key><string>2.0</string>
<key>CFBundleShortVersionString</key><string>2.0</string>
<key>SUPublicDSAKeyFile</key><string>dsa_pub.pem</string>
</dict></plist>
""" % IDENTIFIER
PUBLISHED = 1289052522  # Sat, 06 Nov 2010 14:08:42 +0000
OLDER_ITEM = """
<item><title>Version 1.0</title><pubDate>Fri, 05 Nov 2010 10:00:00 +0000</pubDate>
<enclosure url="http://127.0.0.1/Check_1.0.zip" sparkle:version="1.0" length="5"
 type="application/octet-stream"/></item>"""
NEWER_ITEM = """
<item><title>Version 3.0 f&#252;r alle</title>
<description>  What is new  </description>
<pubDate>Sat, 06 Nov 2010 14:08:42 +0000</pubDate>
<sparkle:releaseNotesLink>http://127.0.0.1/notes.html</sparkle:releaseNotesLink>
<sparkle:minimumSystemVersion>10.4</sparkle:minimumSystemVersion>
<enclosure url="http://127.0.0.1/Check_3.0.zip" sparkle:version="3.0" length="2491"
 sparkle:shortVersionString="3.0 (thirty)" sparkle:dsaSignature="MC0CFQCheck=="
 type="application/octet-stream"/></item>"""
FEED = """<?xml version="1.0" encoding="utf-8"?>
<rss version="2.0" xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle">
<channel><title>Check</title>%s</channel></rss>"""
SERVED = {"/newer.xml": FEED % (OLDER_ITEM + NEWER_ITEM), "/older.xml": FEED % OLDER_ITEM}
requests = []


class FeedServer(BaseHTTPRequestHandler):
    def do_GET(self):
        requests.append(self.path)
        body = SERVED.get(self.path.split("?")[0], "").encode("ascii")
        self.send_response(200 if body else 404)
        self.send_header("Content-Type", "application/rss+xml")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *arguments):
        pass


def make_application(folder):
    """A program that the framework can look for updates of. It is never started, and nothing is
    ever verified with its key; but a program with a feed that is not https should have one."""
    path = os.path.join(folder, "Check.app")
    os.makedirs(os.path.join(path, "Contents", "MacOS"))
    os.makedirs(os.path.join(path, "Contents", "Resources"))
    with open(os.path.join(path, "Contents", "Info.plist"), "w") as plist:
        plist.write(INFO_PLIST)
    with open(os.path.join(path, "Contents", "Resources", "dsa_pub.pem"), "w") as key:
        key.write("-----BEGIN PUBLIC KEY-----\n-----END PUBLIC KEY-----\n")
    program = os.path.join(path, "Contents", "MacOS", "Check")
    with open(program, "w") as script:
        script.write("#!/bin/sh\n")
    os.chmod(program, 0o755)
    return path


@group("framework", *OLDEST_AND_NEWEST)
def check_framework(report, host, options):
    load, loaded = "LoadFramework(path as folderitem) as boolean", "IsFrameworkLoaded as boolean"
    path = os.path.realpath(options.framework)
    path = text(path) if bytes is str else path
    server = HTTPServer(("127.0.0.1", 0), FeedServer)
    serving = threading.Thread(target=server.serve_forever)
    serving.daemon = True
    serving.start()
    base = "http://127.0.0.1:%d" % server.server_address[1]
    folder = os.path.realpath(tempfile.mkdtemp())
    application = make_application(folder)
    seen, found = [], []

    def event(name):
        if name not in [already for already, main in seen]:
            seen.append((name, on_main_thread()))

    def versions(appcast):
        listed = host.get(host.thing(appcast), "items as SUAppcastItemKVZ()")
        result = [host.text(host.get(host.thing(element), "versionString as string"))
                  for element in host.thing(listed).children]
        return listed, result

    def parameters(target, profile):
        event("parameters")
        return host.array("variant", [host.dictionary(
            [("key", host.variant("string", text(b"edition"))),
             ("value", host.variant("string", text(b"Pro")))])]).handle

    def appcast_loaded(target, appcast):
        event("loaded")
        listed, releases = versions(appcast)
        host.unlock(listed)
        found.append(("releases", releases))

    def best(target, appcast):
        event("best")
        listed, releases = versions(appcast)
        chosen = host.thing(listed).children[0]
        host.lock(chosen)
        host.unlock(listed)
        return chosen

    def comparator(target):
        event("comparator")
        host.lock(comparison.handle)
        return comparison.handle

    def compare(target, first, second):
        event("compare")
        pair = [host.thing(version).bytes.decode("ascii") for version in (first, second)]
        found.append(("compared", tuple(pair)))
        return (pair[0] > pair[1]) - (pair[0] < pair[1])

    def update_found(target, item):
        event("found")
        host.lock(item)
        found.append(("item", item))

    comparison = host.instance("SUVersionComparisonKVZ", [
        ("compareVersion(VersionA as string, VersionB as string) as integer", compare)])
    host.get(comparison, "Constructor")
    updater = host.instance("SUUpdaterKVZ", [
        ("feedParametersForUpdater(sendingProfile as boolean) as dictionary()", parameters),
        ("didFinishLoadingAppcast(update as SUAppcastKVZ)", appcast_loaded),
        ("bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ", best),
        ("versionComparatorForUpdater as SUVersionComparisonKVZ", comparator),
        ("didFindValidUpdate(update as SUAppcastItemKVZ)", update_found),
        ("updaterDidNotFindUpdate", lambda target: event("not found")),
        ("updaterShouldPromptForPermissionToCheckForUpdates as boolean", lambda target: 0)])

    with Pool():
        report.check("before anything is loaded", (0, 0, 0), (
            host.shared("SUUpdaterKVZ", loaded), host.shared("SUUpdaterKVZ", load, 0),
            host.shared("SUUpdaterKVZ", loaded)))
        item = host.folder_item(path)
        report.check("LoadFramework", (1, 1, []), (
            host.shared("SUUpdaterKVZ", load, item.handle),
            host.shared("SUUpdaterKVZ", loaded), host.exceptions()))
        host.unlock(item.handle)
        if not cocoa_class("SUUpdater"):
            host.unlock(updater.handle)
            host.unlock(comparison.handle)
            return
        bundle = send("NSBundle", "bundleWithPath:", string(path))
        numbers = [string_text(send(bundle, "objectForInfoDictionaryKey:", string(text(key))))
                   for key in (b"CFBundleShortVersionString", b"CFBundleVersion")]
        report.fact("framework", " ".join(str(number) for number in numbers if number) or "?")

        item = host.folder_item(text(application.encode("utf-8")))
        constructor = "Constructor(Bundle as folderitem)"
        host.get(updater, constructor, item.handle)
        report.check('"Constructor" finds the updater of a bundle, which the registry knows',
                     ("SUUpdater", updater.handle),
                     (class_name(host.field(updater)), host.registered(host.field(updater))))
        host.get(updater, constructor, item.handle)
        report.check('"Constructor" twice',
                     [("UnsupportedOperationException", CALLED_TOO_OFTEN, 0)], host.exceptions())
        host.unlock(item.handle)

        with Log() as log:
            report.check("feedURL when there is none", (0, [("NSExceptionKVZ", "SUNoFeedURL")]),
                         (host.get(updater, "feedURL as string"), host.exceptions()))
        report.check("and its line in the log", 1,
                     len([entry for entry in log.entries if entry.startswith("A SUNoFeedURL: ")]))
        for declaration, default in (
                ("automaticallyChecksForUpdates as boolean", 0),
                ("sendsSystemProfile as boolean", 0),
                ("automaticallyDownloadsUpdates as boolean", 0),
                ("updateInProgress as boolean", 0), ("updateCheckInterval as double", 86400.0),
                ("lastUpdateCheckDate as date", 0)):
            report.check(declaration + ", the default", default, host.get(updater, declaration))
        report.check("hostBundle", ("folderitem", text(application.encode("utf-8"))),
                     host.value(host.get(updater, "hostBundle as folderitem")))

    def feed(name):
        given = host.string(text((base + name).encode("ascii")))
        host.set(updater, "feedURL as string", given.handle)
        host.unlock(given.handle)

    def check_for_information():
        del seen[:], found[:], requests[:]
        with Pool():
            host.get(updater, "checkForUpdateInformation")
        wait_for(lambda: seen[-1:] and seen[-1][0] in ("found", "not found") and
                 not host.get(updater, "updateInProgress as boolean"))

    with Pool():
        feed("/newer.xml")
        report.check("feedURL as it was set", base + "/newer.xml",
                     host.text(host.get(updater, "feedURL as string")))
    check_for_information()
    report.check("checkForUpdateInformation, the events of a newer release",
                 ["parameters", "loaded", "best", "comparator", "compare", "found"],
                 [name for name, main in seen])
    report.check("what only reports comes on the main thread", [True, True],
                 [main for name, main in seen if name in ("loaded", "found")])
    report.fact("questions on the main thread", " ".join(
        "%s=%s" % (name, show(main)) for name, main in seen if name not in ("loaded", "found")))
    report.check("the releases, newest first", [("releases", ["3.0", "1.0"])],
                 [entry for entry in found if entry[0] == "releases"])
    report.check("the comparator is asked about", True, ("compared", ("2.0", "3.0")) in found)
    report.check("the feed's parameters reach the server", ["/newer.xml?edition=Pro"], requests)
    items = [entry[1] for entry in found if entry[0] == "item"]
    with Pool():
        for handle in items[:1]:
            check_item(report, host, host.thing(handle))
        report.check("lastUpdateCheckDate after a check", "date",
                     (host.value(host.get(updater, "lastUpdateCheckDate as date")) or [None])[0])
        report.check("no exception", [], host.exceptions())
        for handle in items:
            host.unlock(handle)

    with Pool():
        feed("/older.xml")
    check_for_information()
    report.check("checkForUpdateInformation, the events when nothing is newer",
                 ["parameters", "loaded", "best", "comparator", "compare", "not found"],
                 [name for name, main in seen])

    with Pool():
        appcast = host.instance("SUAppcastKVZ")
        host.get(appcast, "Constructor")
        given = host.string(text((base + "/newer.xml").encode("ascii")))
        host.get(appcast, "fetchAppcastFromURL(url as string)", given.handle)
        host.unlock(given.handle)

    def fetched():
        with Pool():
            listed, releases = versions(appcast.handle)
            host.unlock(listed)
            return releases

    wait_for(fetched)
    report.check("an appcast that the program fetches itself", ["3.0", "1.0"], fetched())
    report.check("no exception in the end", [], host.exceptions())
    with Pool():
        host.unlock(appcast.handle)
    server.shutdown()
    system.forget_settings(IDENTIFIER)
    # A program keeps its updater for as long as it runs, and the comparator with it.
    report.check("only the updater and the comparator stay",
                 ["1 SUUpdaterKVZ", "1 SUVersionComparisonKVZ"], host.alive())
    del host.things[updater.handle], host.things[comparison.handle]


def check_item(report, host, item):
    for declaration, served in (
            ("title", b"Version 3.0 f\xc3\xbcr alle"), ("versionString", b"3.0"),
            ("displayVersionString", b"3.0 (thirty)"), ("itemDescription", b"What is new"),
            ("releaseNotesURL", b"http://127.0.0.1/notes.html"),
            ("fileURL", b"http://127.0.0.1/Check_3.0.zip"), ("DSASignature", b"MC0CFQCheck=="),
            ("minimumSystemVersion", b"10.4")):
        report.check("the item's " + declaration, text(served),
                     host.text(host.get(item, declaration + " as string")))
    report.check("the item's date", ("date", local_fields(PUBLISHED)),
                 host.value(host.get(item, "date as date")))
    kind, pairs = host.value(host.get(item, "propertiesDictionary as dictionary"))
    pairs = dict((key[1], value) for key, value in pairs)
    report.check("the item's propertiesDictionary, the title",
                 ("string", text(b"Version 3.0 f\xc3\xbcr alle")), pairs.get("title"))
    enclosure = pairs.get("enclosure") or ("nothing", [])
    enclosure = dict((key[1], value[1]) for key, value in enclosure[1])
    report.check("the item's propertiesDictionary, the enclosure",
                 ["http://127.0.0.1/Check_3.0.zip", "2491", "3.0", "application/octet-stream"],
                 [enclosure.get(key) for key in ("url", "length", "sparkle:version", "type")])
    host.get(item, "Constructor")
    report.check('the item\'s "Constructor"',
                 [("UnsupportedOperationException", CALLED_TOO_OFTEN, 0)], host.exceptions())


# ------------------------------------------------------------------------------------------------
# Running the groups.


def run_group(options):
    """One group with one host, in this process, which then ends."""
    name, host_name = options.only.split("/")
    checks = [checks for known, hosts, checks in groups if known == name][0]
    report = Report(options.only)
    tempfile.tempdir = tempfile.mkdtemp()
    try:
        if HOSTS[host_name] is None:
            with Pool():
                make_stand_in_class()
            checks(report, options)
        else:
            with Pool():
                host = Host(*HOSTS[host_name])
                host.start(options.plugin)
                make_stand_in_class()
            if name == "framework":
                checks(report, host, options)
            else:
                checks(report, host)
            report.check("every reference to the host's objects is given back", [], host.alive())
            report.check("and every block of text", 0, len(host.buffers))
    except Exception:
        troubles.append(traceback.format_exc())
    for trouble in troubles:
        report.check("the host's own work", "no trouble", trouble)
    shutil.rmtree(tempfile.tempdir)
    report.line("end", name)
    # Nothing of Cocoa or of the plug-in is to run any more.
    os._exit(1 if report.failed else 0)


def run_child(options, folder, name, host_name):
    """Runs a group with a host, passes its lines on, and answers them. What files it makes go into
    the folder, for it may crash."""
    command = system.command() + ["--only=%s/%s" % (name, host_name), "--plugin", options.plugin]
    for option in ("framework", "testbed"):
        if getattr(options, option):
            command += ["--" + option, getattr(options, option)]
    child = subprocess.Popen(command, stdout=subprocess.PIPE, env=dict(os.environ, TMPDIR=folder))
    watch = threading.Timer(PATIENCE, child.kill)
    watch.start()
    lines = []
    for line in iter(child.stdout.readline, b""):
        line = line.decode("ascii", "replace").rstrip("\n")
        lines.append((line[:4].strip(), line[5:]))
        if lines[-1][0] != "end":
            print(line)
            sys.stdout.flush()
    status = child.wait()
    watch.cancel()
    if not lines or lines[-1][0] != "end":
        got = "exit status %d" % status
        if status < 0:
            names = dict((getattr(signal, known), known) for known in dir(signal)
                         if known.startswith("SIG") and not known.startswith("SIG_"))
            got = "%s" % names.get(-status, "signal %d" % -status)
        last = lines[-1][1] if lines else "its start"
        lines.append(("FAIL", '%s/%s: expected to come to its end, got %s after "%s"'
                      % (name, host_name, got, last)))
        print("%-4s %s" % lines[-1])
    return lines


def main():
    global system
    parser = optparse.OptionParser(usage="arch -i386 /usr/bin/python2.7 check.py [options]")
    parser.add_option("--framework", metavar="PATH/Sparkle.framework",
                      help="check with the update framework too")
    parser.add_option("--plugin", metavar="FILE",
                      help="the plug-in, if it is not SparkleKVZ.dylib beside this script")
    parser.add_option("--testbed", help="on Linux: the folder of the stand-in for Cocoa")
    parser.add_option("--only", metavar="GROUP/HOST",
                      help="run one group of checks with one host, in this process")
    options, rest = parser.parse_args()
    if rest:
        parser.error("%s is no option" % rest[0])
    on_mac = sys.platform == "darwin"
    if ctypes.sizeof(ctypes.c_void_p) != 4:
        parser.error("this Python runs with 64 bits, the plug-in with 32. "
                     "Put \"arch -i386\" in front of it.")
    if not on_mac and not options.testbed:
        parser.error("this is no Mac. With --testbed it runs on the stand-in of the developers.")
    options.plugin = options.plugin or Mac.plugin
    if not os.path.isfile(options.plugin):
        parser.error("%s is not there. It belongs beside this script." % options.plugin)
    if options.framework and not os.path.isdir(options.framework):
        parser.error("%s is no folder. Name the folder Sparkle.framework itself."
                     % options.framework)
    options.plugin = os.path.abspath(options.plugin)
    system = Mac(None) if on_mac else Linux(options.testbed)
    known = [name + "/" + host_name for name, hosts, checks in groups for host_name in hosts]
    if options.only and options.only not in known:
        parser.error("there is no group %s. There are:\n  %s"
                     % (options.only, "\n  ".join(known)))
    if (options.only or "").startswith("framework/") and not options.framework:
        parser.error("%s needs the framework. Name it with --framework PATH/Sparkle.framework."
                     % options.only)
    if options.only:
        run_group(options)

    with open(options.plugin, "rb") as plugin:
        digest = hashlib.sha1(plugin.read()).hexdigest()
    about = [system.name(), "Python %s" % platform.python_version(), "plug-in %s" % digest[:12]]
    for line in about:
        print("     " + line)
    sys.stdout.flush()
    lines, folder = [], tempfile.mkdtemp()
    for name, hosts, checks in groups:
        for host_name in hosts:
            if name != "framework" or options.framework:
                lines += run_child(options, folder, name, host_name)
        if name == "loading" and [line for kind, line in lines if kind == "FAIL"]:
            print("     Nothing else can be checked.")
            break
    shutil.rmtree(folder)
    passed_count = len([1 for kind, line in lines if kind == "ok"])
    failed = [line for kind, line in lines if kind == "FAIL"]
    facts = []
    for kind, line in lines:
        if kind == "fact" and line not in facts:
            facts.append(line)
    print("")
    print("%d ok, %d FAIL" % (passed_count, len(failed)))
    print("For the maintainers, in one line:")
    failures = ["FAIL " + line.split(": expected")[0] for line in failed]
    print("SparkleKVZ check | " + " | ".join(
        about + ["%d ok" % passed_count, "%d FAIL" % len(failed)] + facts + failures))
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()

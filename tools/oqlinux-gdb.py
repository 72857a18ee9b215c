"""GDB pretty-printers for OQCString, OQCList, Pointer and the exceptions.

GDB loads this file automatically together with an installed libOQLinux.so. In the build tree, load it with

    (gdb) source tools/oqlinux-gdb.py

Destroyed and unconstructed values are common in a debugger. For such a value the printer shows the problem in angle
brackets. It never raises a Python error.
"""
import json

import gdb
import gdb.printing


class Wrong(Exception):
    """Why a value cannot be shown."""


def word(address):
    """Reads the machine word at an address."""
    return int(gdb.Value(address).cast(gdb.lookup_type("unsigned long").pointer()).dereference())


def word_size():
    return gdb.lookup_type("unsigned long").sizeof


def holders(pointer):
    """Counts the Pointers that hold the same pointee."""
    if int(pointer["mPointer"]) == 0:
        raise Wrong("empty")
    if int(pointer["mReferenceCount"]) == 0:
        raise Wrong("no counter: not constructed")
    count = int(pointer["mReferenceCount"]["mCount"]["_M_i"])
    if count == 0:
        raise Wrong("released by its last holder")
    return count


def standard_text(address):
    """Reads the text of a std::string. The object holds the address and the length of the text. The
    capacity follows, or the text itself if it is short. The function reads raw memory, because the program may have no
    debug information for that class."""
    begin, length = word(address), word(address + word_size())
    room = 15 if begin == address + 2 * word_size() else word(address + 2 * word_size())
    if length > room or gdb.selected_inferior().read_memory(begin + length, 1)[0] != b"\0":
        raise Wrong("no text at 0x%x: released, or not constructed" % address)
    return gdb.Value(begin).cast(gdb.lookup_type("char").pointer()).lazy_string(length=length)


class Printer:
    """Base class of the printers. Catches every exception of a derived class and shows it."""

    def __init__(self, value):
        self.value = value

    def elements(self):
        return ()

    def to_string(self):
        try:
            return self.text()
        except Exception as problem:  # pylint: disable=broad-except
            return "<%s>" % problem

    def children(self):
        try:
            self.text()  # an invalid value has no children
        except Exception:  # pylint: disable=broad-except
            return
        try:
            yield from self.elements()
        except Exception as problem:  # pylint: disable=broad-except
            yield "wrong", "<%s>" % problem


class TextPrinter(Printer):
    def text(self):
        if int(self.value["mString"]["mPointer"]) == 0:
            raise Wrong("no text: destroyed, or not constructed")
        holders(self.value["mString"])
        return standard_text(int(self.value["mString"]["mPointer"]))


class PointerPrinter(Printer):
    KINDS = {1: "object", 2: "array"}
    ORIGINS = {1: "new", 2: "malloc"}

    def text(self):
        count = holders(self.value)
        kind, origin = int(self.value["mSizeType"]), int(self.value["mMemoryType"])
        if kind not in self.KINDS or origin not in self.ORIGINS:
            raise Wrong("size type %d, memory type %d: not constructed" % (kind, origin))
        return "%s from %s, %d holder%s" % (self.KINDS[kind], self.ORIGINS[origin], count, "s" if count > 1 else "")

    def elements(self):
        # Only the owner knows the number of elements of an array.
        yield ("first" if int(self.value["mSizeType"]) == 2 else "object"), self.value["mPointer"].dereference()


class ListPrinter(Printer):
    def head(self):
        return int(self.value["mList"]["_M_impl"]["_M_node"].address)

    def text(self):
        head = self.head()
        following, last = word(head), word(head + word_size())
        if word(following + word_size()) != head or word(last) != head:
            raise Wrong("no list: destroyed, or not constructed")
        size = int(self.value["mList"]["_M_impl"]["_M_node"]["_M_size"])
        return "%d element%s" % (size, "" if size == 1 else "s")

    def elements(self):
        element = self.value.type.strip_typedefs().template_argument(0)
        offset = (2 * word_size() + element.alignof - 1) // element.alignof * element.alignof
        before, node, count = self.head(), word(self.head()), 0
        while node != self.head():
            if word(node + word_size()) != before:
                raise Wrong("broken here")
            yield "[%d]" % count, gdb.Value(node + offset).cast(element.pointer()).dereference()
            before, node, count = node, word(node), count + 1

    def display_hint(self):
        return "array"


def root(value):
    """Returns the OQCException in a value, or None. Its class is incomplete if libOQCompanion.so has no debug
    information."""
    if value.type.name == "OQCException":
        return value
    roots = (root(value[field]) for field in value.type.fields() if field.is_base_class)
    return next((found for found in roots if found is not None), None)


class ExceptionPrinter(Printer):
    SIZE = 256  # of the text, which follows the address of the vtable; then comes the code

    def text(self):
        if word(int(self.value.address)) == 0:
            raise Wrong("no exception: not constructed")
        begin = int(root(self.value).address) + word_size()
        code = gdb.Value(begin + self.SIZE).cast(gdb.lookup_type("unsigned int").pointer()).dereference()
        text, end, _ = gdb.selected_inferior().read_memory(begin, self.SIZE).tobytes().partition(b"\0")
        if not end:
            raise Wrong("no exception: its text has no end")
        return "%s %d %s" % (self.value.dynamic_type.unqualified().name, int(code),
                             json.dumps(text.decode("utf-8", "backslashreplace"), ensure_ascii=False))


def is_exception(kind):
    return kind.name == "OQCException" or any(is_exception(field.type) for field in kind.fields() if field.is_base_class)


def oqlinux(value):
    """Returns the printer for a value of one of the layer's types, or None."""
    try:
        if value.type.code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
            value = value.referenced_value()
        kind = value.type.strip_typedefs().unqualified()
        if kind.code != gdb.TYPE_CODE_STRUCT or not kind.name or not kind.fields():
            return None
        if kind.name == "OQCString":
            return TextPrinter(value)
        if kind.name.startswith("OQCList<"):
            return ListPrinter(value)
        if kind.name.startswith("Pointer<") and any(field.name == "mReferenceCount" for field in kind.fields()):
            return PointerPrinter(value)
        return ExceptionPrinter(value) if is_exception(kind) else None
    except gdb.error:
        return None


gdb.printing.register_pretty_printer(gdb.current_objfile(), oqlinux, replace=True)

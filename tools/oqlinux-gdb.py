"""Lets GDB show OQCString, OQCList, Pointer and the exceptions by what they hold.

GDB loads this by itself together with an installed libOQLinux.so; in the build tree: (gdb) source tools/oqlinux-gdb.py

A value that was destroyed or never built is what one looks for with a debugger: what is wrong with it is shown in angle
brackets, and no Python error reaches the user.
"""
import json

import gdb
import gdb.printing


class Wrong(Exception):
    """Why a value cannot be shown."""


def word(address):
    """The machine word at an address."""
    return int(gdb.Value(address).cast(gdb.lookup_type("unsigned long").pointer()).dereference())


def word_size():
    return gdb.lookup_type("unsigned long").sizeof


def holders(pointer):
    """How many Pointers hold what this one does."""
    if int(pointer["mPointer"]) == 0:
        raise Wrong("empty")
    if int(pointer["mReferenceCount"]) == 0:
        raise Wrong("no counter: not constructed")
    count = int(pointer["mReferenceCount"]["mCount"]["_M_i"])
    if count == 0:
        raise Wrong("released by its last holder")
    return count


def standard_text(address):
    """The text of a std::string: where it is, its length, then its room or, if it is short, the text itself. Read as
    memory, because a program may come without a description of that class."""
    begin, length = word(address), word(address + word_size())
    room = 15 if begin == address + 2 * word_size() else word(address + 2 * word_size())
    if length > room or gdb.selected_inferior().read_memory(begin + length, 1)[0] != b"\0":
        raise Wrong("no text at 0x%x: released, or not constructed" % address)
    return gdb.Value(begin).cast(gdb.lookup_type("char").pointer()).lazy_string(length=length)


class Printer:
    """What is shown of a value; the classes below may raise what they like."""

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
            self.text()  # what is wrong as a whole is not looked into
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
        # Nobody but its owner knows how many elements an array has.
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


class ExceptionPrinter(Printer):
    def text(self):
        if word(int(self.value.address)) == 0:
            raise Wrong("no exception: not constructed")
        message = self.value["mMessage"]
        text, end, _ = gdb.selected_inferior().read_memory(message.address, message.type.sizeof).tobytes().partition(b"\0")
        if not end:
            raise Wrong("no exception: its text has no end")
        return "%s %d %s" % (self.value.dynamic_type.unqualified(), int(self.value["mCode"]),
                             json.dumps(text.decode("utf-8", "backslashreplace"), ensure_ascii=False))


def is_exception(kind):
    return kind.name == "OQCException" or any(is_exception(field.type) for field in kind.fields() if field.is_base_class)


def oqlinux(value):
    """The printer for a value, if it is one of ours and the program describes its class."""
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

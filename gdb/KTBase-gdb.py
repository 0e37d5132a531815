"""How gdb shows the library's strings, lists, times, addresses and packets.

The Debian package puts this where gdb loads it by itself; else: source KTBase-gdb.py.

The types must be known to gdb. Classes with virtual functions are described where those functions
are compiled, so either the library is built with -g (the debug preset, or CMAKE_BUILD_TYPE
RelWithDebInfo), or the program with -g -femit-class-debug-always. A class that gdb knows by name
only it shows as <incomplete type>, as it would without this file.
"""
import socket
import struct

import gdb
import gdb.printing
import gdb.types


def read(address, count):
    return bytes(gdb.selected_inferior().read_memory(address, count))


def time_text(word, ms):
    """A ZHTIME word and milliseconds."""
    if word == 0:
        return "null time"
    return "%04d/%02d/%02d %02d:%02d:%02d.%03d" % (
        2000 + (word >> 26), word >> 22 & 15, word >> 17 & 31,
        word >> 12 & 31, word >> 6 & 63, word & 63, ms)


class String:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        buffer = self.value["m_buffer"]
        if int(buffer) == 0:
            return ""
        return buffer.lazy_string(length=int(self.value["m_length"]))

    def display_hint(self):
        return "string"


class List:
    def __init__(self, value):
        self.name = value.type.name
        self.chain = value["m_chain"]

    def to_string(self):
        return "%s of %d" % (self.name, int(self.chain["m_count"]))

    def children(self):
        # By the layout (next, prev, item): programs know the node's class by name only.
        item = self.chain.type.template_argument(0).pointer()
        link = gdb.lookup_type("void").pointer().pointer()
        node = self.chain["m_head"].cast(link)
        # The count ends the walk through a damaged list, too.
        for i in range(int(self.chain["m_count"])):
            yield "[%d]" % i, (node + 2).cast(item).dereference()
            node = node.dereference().cast(link)

    def display_hint(self):
        return "array"


class Queue(List):
    def __init__(self, value):
        self.name = "CKTQueue"
        self.limit = int(value["m_maxCount"])
        self.chain = value["m_items"]["m_chain"]

    def to_string(self):
        limit = ", at most %d" % self.limit if self.limit != 0 else ""
        return List.to_string(self) + limit


class Time:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return time_text(int(self.value["m_time"]), int(self.value["m_ms"]))


class Address:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        length = int(self.value["m_length"])
        if length < 16:
            return "empty address"
        name = read(int(self.value["m_address"]), length)
        family, = struct.unpack_from("=H", name)
        port, = struct.unpack_from("!H", name, 2)
        if family == 2:
            return "%s:%d" % (socket.inet_ntop(socket.AF_INET, name[4:8]), port)
        if family in (10, 23) and length >= 28:  # of Linux, of Windows
            return "[%s]:%d" % (socket.inet_ntop(socket.AF_INET6, name[8:24]), port)
        return "address of family %d" % family


class Packet:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        size = int(self.value["m_size"])
        text = "CPacket, count %d, " % int(self.value["m_ref"])
        if size < 20:
            return text + "buffer of %d bytes" % size
        header = read(int(self.value["m_data"]), 20)
        kind, length, word, ms, codec, rate, width, height = struct.unpack("<3xBIIHBBHH", header)
        kind = kind - 0xE0 & 0xFF
        text += "buffer of %d bytes: codec %d, type %d, payload %d bytes, %s" % (
            size, codec, kind, length, time_text(word, ms))
        if codec in (1, 2) or 16 <= codec <= 47:
            text += ", %dx%d, %g fps" % (width, height, rate / 4)
        return text


PRINTERS = {
    "CKTString": String, "CKTSocketMSG": String,
    "CKTList": List, "CKTListOBJ": List, "CKTListT": List, "CKTListP": List,
    "CKTPacketList": List, "CKTPacketListEx": List,
    "CKTQueue": Queue, "CKTTime": Time, "CKTSocketAddress": Address, "CPacket": Packet,
}


class Lookup(gdb.printing.PrettyPrinter):
    def __init__(self):
        super().__init__("KTBase")

    def __call__(self, value):
        kind = gdb.types.get_basic_type(value.type)
        if kind.code != gdb.TYPE_CODE_STRUCT or not kind.fields():
            return None
        printer = PRINTERS.get((kind.name or "").split("<")[0])
        return printer(value.cast(kind)) if printer is not None else None


gdb.printing.register_pretty_printer(gdb.current_objfile(), Lookup(), replace=True)

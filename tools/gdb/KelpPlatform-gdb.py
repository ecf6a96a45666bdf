"""How gdb shows the library's types: pointers with the class and the users of what they point to,
keyed collections and queues by their members, versions and states as the library prints them.

gdb loads this file by itself with libKelpPlatform.so, beside which it lies under the name
libKelpPlatform.so.VERSION-gdb.py, if its auto-load safe-path allows that folder:

    (gdb) add-auto-load-safe-path FOLDER-OF-THE-LIBRARY

Every reader takes the memory as it is: of a process that has died in the middle of a change it
shows what is there, and where that does not add up it says so in place of a member.
"""

import gdb
import gdb.printing

INVALID = (1 << 64) - 1
TAGS = 16
STATES = {0: "unresolved", 1: "inLog", 2: "reserved", 3: "failed", 4: "success", 5: "failed",
          6: "failed"}


def number(value):
    """A value of a class that wraps one number, or of an atomic one."""
    kind = value.type.strip_typedefs()
    while kind.code == gdb.TYPE_CODE_STRUCT:
        # A static member has no place in the object.
        fields = [field for field in kind.fields()
                  if not field.is_base_class and hasattr(field, "bitpos")]
        if fields:
            value = value[fields[0]]
        else:
            value = value.cast(next(f for f in kind.fields() if f.is_base_class).type)
        kind = value.type.strip_typedefs()
    return int(value)


class PtrPrinter:
    """A Lumen::Ptr: null, or what it points to, by its class, and how many hold it."""

    COUNT_MASK = 0x0FFFFFFF

    def __init__(self, value):
        self.node = value["node_"]

    def to_string(self):
        if int(self.node) == 0:
            return "null"
        pointee = self.node.dereference()
        try:
            name = str(self.node.dynamic_type.target().unqualified())
        except (gdb.error, RuntimeError):
            name = str(pointee.type.unqualified())
        try:
            users = self.users()
            held = "%d user%s" % (users, "" if users == 1 else "s")
        except (gdb.error, RuntimeError):
            held = "not to be read"
        return "%s at 0x%x, %s" % (name, int(self.node), held)

    def users(self):
        # The word behind the table of virtual functions: where Lumen::Node is known by its name
        # alone, as in a program whose libraries have no debugging information, it has no members.
        vtable = gdb.lookup_type("void").pointer().sizeof
        word = gdb.lookup_type("unsigned int").pointer()
        return int(gdb.Value(int(self.node) + vtable).cast(word).dereference()) & self.COUNT_MASK


def entries(generic):
    """The directory entries of a collection."""
    # A directory of one entry lies in the collection itself; the pointer says where it is.
    directory = generic["directory_"]
    for index in range(1 << (32 - int(generic["shift_"]))):
        yield directory[index]


class CollectionPrinter:
    """A Brio::HashMap2018: its members in the order of their buckets."""

    def __init__(self, value):
        self.generic = value["generic_"]
        self.node = value.type.strip_typedefs().template_argument(0)

    def to_string(self):
        return "collection of %d" % int(self.generic["members_"])

    def display_hint(self):
        return "array"

    def children(self):
        shown = 0
        for entry in entries(self.generic):
            bucket = entry["bucket"]
            if int(bucket) == 0:
                continue
            word = int(bucket["word_"])
            used = word >> 18
            capacity = word >> 4 & 0x3FFF
            if used > capacity:
                yield str(shown), "a bucket of %d slots says that %d are used" % (capacity, used)
                return
            slots = (bucket + 1).cast(self.node.pointer())
            for slot in range(used):
                yield "[%d]" % shown, self.member(slots[slot])
                shown += 1
        if shown != int(self.generic["members_"]):
            yield "[%d]" % shown, "%d members were counted" % int(self.generic["members_"])

    @staticmethod
    def member(node):
        """Key and value of a node, or that of both which it stores."""
        fields = {}

        def collect(value):
            for field in value.type.strip_typedefs().fields():
                if field.is_base_class:
                    collect(value.cast(field.type))
                elif field.name in ("key_", "value_"):
                    fields[field.name] = value[field]

        collect(node)
        if len(fields) == 2:
            return "%s: %s" % (fields["key_"], fields["value_"])
        return next(iter(fields.values())) if fields else node


class QueuePrinter:
    """A Lumen::RQueue: its elements by their indexes."""

    def __init__(self, value):
        self.element = value.type.strip_typedefs().template_argument(0)
        base = [field for field in value.type.strip_typedefs().fields() if field.is_base_class]
        self.base = value.cast(base[0].type) if base else value
        self.tail = self.base["chunks_"]["tail_"]

    def chunks(self):
        if int(self.tail) == 0:
            return
        chunk = self.tail
        while True:
            chunk = chunk["link"]["next_"].cast(self.tail.type)
            if int(chunk) == 0:
                return
            yield chunk
            if chunk == self.tail:
                return

    def to_string(self):
        count = sum(int(chunk["endPos"]) - int(chunk["beginPos"]) for chunk in self.chunks())
        return "queue of %d" % count

    def children(self):
        alignment = self.element.alignof
        header = gdb.lookup_type("void").pointer().sizeof + 8
        offset = (header + alignment - 1) // alignment * alignment
        for chunk in self.chunks():
            first = int(chunk["firstIndex"])
            address = int(chunk) + offset
            slots = gdb.Value(address).cast(self.element.pointer())
            for position in range(int(chunk["beginPos"]), int(chunk["endPos"])):
                yield "[%d]" % (first + position & 0xFFFFFFFF), slots[position]


class TextPrinter:
    """One of the small values, as the library prints it."""

    def __init__(self, value, text):
        self.value = value
        self.text = text

    def to_string(self):
        return self.text(self.value)


def state(value):
    byte = int(value)
    return "%s (%d)" % (STATES.get(byte, "unknown"), byte)


def entry_version(value):
    major = int(value["majorVersion"])
    minor = int(value["minorVersion"])
    return "invalid" if major == INVALID else "%d.%d" % (major, minor)


def major_version(value):
    return "invalid" if number(value) == INVALID else str(number(value))


def table_id(value):
    word = number(value)
    return "%02x:%02x:%04x" % (word >> 24, word >> 16 & 0xFF, word & 0xFFFF)


def printers():
    def small(text):
        return lambda value: TextPrinter(value, text)

    found = gdb.printing.RegexpCollectionPrettyPrinter("KelpPlatform")
    found.add_printer("Lumen::Ptr", "^Lumen::Ptr<.*>$", PtrPrinter)
    found.add_printer("Brio::HashMap2018", "^Brio::HashMap2018<.*>$", CollectionPrinter)
    found.add_printer("Lumen::RQueue", "^Lumen::RQueue<.*>$", QueuePrinter)
    found.add_printer("Asic::EntryState", "^Asic::EntryState$", small(state))
    found.add_printer("Asic::EntryVersion", "^Asic::EntryVersion$", small(entry_version))
    found.add_printer("Asic::MajorVersion", "^Asic::MajorVersion$", small(major_version))
    found.add_printer("Asic::LogVersion", "^Asic::LogVersion$", small(lambda v: str(number(v))))
    found.add_printer("Asic::UnitId", "^Asic::UnitId$", small(lambda v: str(number(v))))
    found.add_printer("Asic::SwTableId", "^Asic::SwTableId$", small(table_id))
    return found


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)

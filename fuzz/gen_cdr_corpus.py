#!/usr/bin/env python3
"""gen_cdr_corpus.py - writes the seed corpus of the CDR decoder's fuzz target.

Run once from the repository root (python3 fuzz/gen_cdr_corpus.py); the
files in fuzz/corpus/cdr are kept in the repository. The encoder here is a
separate, minimal CDR writer, so the seeds also cover the forms our own
encoder never produces: little-endian encapsulations and indirections.
"""

import os
import struct

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "cdr")

TK_SHORT, TK_LONG, TK_ULONG, TK_DOUBLE, TK_BOOLEAN = 2, 3, 5, 7, 8
TK_OCTET, TK_ANY, TK_TYPECODE, TK_OBJREF, TK_STRUCT = 10, 11, 12, 14, 15
TK_ENUM, TK_STRING, TK_SEQUENCE, TK_ALIAS, TK_LONGLONG = 17, 18, 19, 21, 23


class Cdr:
    """A CDR stream; alignment counts from `origin`, byte order per stream."""

    def __init__(self, little=False):
        self.b = bytearray()
        self.little = little

    def align(self, n):
        while len(self.b) % n:
            self.b.append(0)

    def scalar(self, fmt, size, v):
        self.align(size)
        self.b += struct.pack(("<" if self.little else ">") + fmt, v)
        return self

    def u8(self, v):
        self.b.append(v)
        return self

    def u32(self, v):
        return self.scalar("I", 4, v)

    def string(self, s):
        data = s.encode() + b"\0"
        self.u32(len(data))
        self.b += data
        return self

    def encap(self, inner):
        """Appends `inner` (a Cdr whose first octet is its byte order)."""
        self.u32(len(inner.b))
        self.b += inner.b
        return self


def encapsulation(little=False):
    e = Cdr(little)
    e.u8(1 if little else 0)
    return e


def tc_simple(c, kind):
    c.u32(kind)


def tc_string(c):
    c.u32(TK_STRING).u32(0)


def tc_alias_seq(c, repo, name, element, little=False):
    """alias `name` of sequence<element>; element(c) writes the element TC."""
    c.u32(TK_ALIAS)
    a = encapsulation(little)
    a.string(repo).string(name)
    a.u32(TK_SEQUENCE)
    s = encapsulation(little)
    element(s)
    s.u32(0)
    a.encap(s)
    c.encap(a)


def tc_property(c, little=False):
    c.u32(TK_STRUCT)
    e = encapsulation(little)
    e.string("IDL:Kel_Fanout2/Property:1.0").string("Property").u32(2)
    e.string("key")
    tc_string(e)
    e.string("value")
    e.u32(TK_ANY)
    c.encap(e)


def tc_properties(c, little=False):
    tc_alias_seq(c, "IDL:Kel_Fanout2/Properties:1.0", "Properties",
                 lambda s: tc_property(s, little), little)


def tc_octet_list(c, little=False):
    tc_alias_seq(c, "IDL:Kel_Types/OctetList:1.0", "OctetList",
                 lambda s: s.u32(TK_OCTET), little)


def properties(c, entries):
    """entries: (key, write_any) pairs; write_any(c) writes TypeCode and value."""
    c.u32(len(entries))
    for key, write in entries:
        c.string(key)
        write(c)


def any_string(v):
    return lambda c: (tc_string(c), c.string(v))


def any_long(v):
    return lambda c: (c.u32(TK_LONG), c.scalar("i", 4, v))


def small_list(c):
    properties(c, [("name", any_string("abc"))])


def every_kind(c, little_tcs=False):
    def octets(c):
        tc_octet_list(c, little_tcs)
        c.u32(5)
        c.b += bytes([1, 2, 3, 4, 5])

    def nested(c):
        tc_properties(c, little_tcs)
        small_list(c)

    def any_in_any(c):
        c.u32(TK_ANY)
        c.u32(TK_ANY)
        any_string("deep")(c)

    def nil_object(c):
        c.u32(TK_OBJREF)
        e = encapsulation(little_tcs)
        e.string("IDL:omg.org/CORBA/Object:1.0").string("Object")
        c.encap(e)
        c.string("").u32(0)

    def colour(c):
        c.u32(TK_ENUM)
        e = encapsulation(little_tcs)
        e.string("IDL:Test/Colour:1.0").string("Colour").u32(2).string("red").string("green")
        c.encap(e)
        c.u32(1)

    def typecode(c):
        c.u32(TK_TYPECODE)
        tc_properties(c, little_tcs)

    properties(c, [
        ("string", any_string("hello")),
        ("short", lambda c: (c.u32(TK_SHORT), c.scalar("h", 2, -2))),
        ("long", any_long(-70000)),
        ("ulong", lambda c: (c.u32(TK_ULONG), c.u32(4000000000))),
        ("longlong", lambda c: (c.u32(TK_LONGLONG), c.scalar("q", 8, -(1 << 40)))),
        ("double", lambda c: (c.u32(TK_DOUBLE), c.scalar("d", 8, 2.5))),
        ("true", lambda c: (c.u32(TK_BOOLEAN), c.u8(1))),
        ("octets", octets),
        ("nested", nested),
        ("any", any_in_any),
        ("object", nil_object),
        ("colour", colour),
        ("typecode", typecode),
    ])


def indirection_list(c):
    """One property whose value is a struct of two strings, the second
    member's TypeCode an indirection to the first's, in a little-endian
    encapsulation."""
    c.u32(1).string("pair")
    c.u32(TK_STRUCT)
    e = encapsulation(True)
    e.string("IDL:Test/Pair:1.0").string("Pair").u32(2).string("a")
    e.align(4)
    first = len(c.b) + 4 + len(e.b)   # where the first member's kind lands
    e.u32(TK_STRING).u32(0)
    e.string("b").u32(0xffffffff)
    here = len(c.b) + 4 + len(e.b)
    e.scalar("i", 4, first - here)
    c.encap(e)
    c.string("x").string("y")


def main():
    os.makedirs(OUT, exist_ok=True)
    seeds = {}
    for name, write in [("small_list", small_list), ("every_kind", every_kind),
                        ("every_kind_le_typecodes", lambda c: every_kind(c, True)),
                        ("indirection", indirection_list)]:
        c = Cdr()
        write(c)
        seeds[name] = bytes(c.b)
    c = Cdr()
    c.u32(TK_ANY)
    any_long(42)(c)
    seeds["any_long"] = bytes(c.b)
    c = Cdr()
    tc_properties(c)
    small_list(c)
    seeds["any_properties"] = bytes(c.b)
    for name, data in seeds.items():
        with open(os.path.join(OUT, name + ".bin"), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()

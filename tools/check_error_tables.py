#!/usr/bin/env python3
"""Consistency check of the constant error-text tables in api/ErrorTables.cpp.

Hard errors (exit status 1):
  - the index does not hold exactly 60 slots, or a slot names an unknown table;
  - a table's declared size differs from its number of rows;
  - a text is longer than 67 characters (entries hold 68 bytes with the NUL);
  - api/ErrorTableList.h does not list the same tables, counts and order as the index.
Reported, not fatal (the tables carry a few such rows on purpose):
  - function rows (error number 0) whose function bits are 0;
  - error rows that also carry function bits or the common flag;
  - rows whose module/layer bits do not match the slot key;
  - codes that stand twice in one table (the lookup shows the first).

Usage: check_error_tables.py [repo root]   (default: the parent of this script's folder)
"""
import os
import re
import sys

SLOTS = 60
MAX_TEXT = 67

FUNC_MASK = 0x0003FC00
COMMON_FLAG = 0x00000200
NUMBER_MASK = 0x000001FF
KEY_MASK = 0xFF0C0000  # error marker, module, the always-zero bits and the layer

TABLE_RE = re.compile(
    r"const\s+std::array<\s*ErrorCodeText\s*,\s*(\d+)\s*>\s+(\w+)\s*=\s*\{(.*?)\}\s*;",
    re.S)
ROW_RE = re.compile(r'\{\s*(0x[0-9A-Fa-f]+)\s*,\s*"((?:[^"\\]|\\.)*)"\s*\}')
INDEX_RE = re.compile(
    r"const\s+ErrorCodeTextTable\s+ErrorCodeTextTableCollect\s*\[[^\]]*\]\s*=\s*\{(.*?)\}\s*;",
    re.S)
SLOT_RE = re.compile(
    r"\{\s*(0x[0-9A-Fa-f]+)\s*,\s*(?:nullptr\s*,\s*0|(\w+)\.data\(\)\s*,\s*"
    r"(?:static_cast<int32_t>\(\s*(\w+)\.size\(\)\s*\)|\(int32_t\)\s*(\w+)\.size\(\)))\s*\}")
LIST_RE = re.compile(r"^\s*QUARN_ERROR_TABLE\(\s*(\w+)\s*,\s*(\d+)\s*\)", re.M)


def strip_comments(src):
    src = re.sub(r"/\*.*?\*/", "", src, flags=re.S)
    # Line comments outside string literals (the texts hold no "//").
    return re.sub(r'//[^\n"]*$', "", src, flags=re.M)


def unescape(text):
    return re.sub(r"\\(.)", r"\1", text)


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(
        os.path.dirname(os.path.abspath(__file__)))
    src = strip_comments(open(os.path.join(root, "api", "ErrorTables.cpp"), encoding="utf-8").read())

    errors = []
    notes = []

    tables = {}
    for m in TABLE_RE.finditer(src):
        n, name, body = int(m.group(1)), m.group(2), m.group(3)
        rows = [(int(c, 16), unescape(t)) for c, t in ROW_RE.findall(body)]
        if name in tables:
            errors.append("table %s defined twice" % name)
        tables[name] = (n, rows)
        if len(rows) != n:
            errors.append("%s: declared %d entries, %d rows" % (name, n, len(rows)))
        for code, text in rows:
            if len(text) > MAX_TEXT:
                errors.append("%s: 0x%08X text is %d characters: %r" % (name, code, len(text), text))

    m = INDEX_RE.search(src)
    if not m:
        errors.append("ErrorCodeTextTableCollect not found")
        slots = []
    else:
        slots = []
        for s in SLOT_RE.finditer(m.group(1)):
            key = int(s.group(1), 16)
            name = s.group(2)
            size_of = s.group(3) or s.group(4)
            if name and name != size_of:
                errors.append("slot 0x%08X: pointer of %s but size of %s" % (key, name, size_of))
            slots.append((key, name))
        if len(slots) != SLOTS:
            errors.append("index holds %d slots, expected %d" % (len(slots), SLOTS))
    keys = [k for k, _ in slots]
    for k in set(keys):
        if keys.count(k) > 1:
            errors.append("key 0x%08X used by %d slots" % (k, keys.count(k)))

    indexed = set()
    for pos, (key, name) in enumerate(slots):
        if name is None:
            continue
        if name not in tables:
            errors.append("slot %d: unknown table %s" % (pos, name))
            continue
        indexed.add(name)
        n, rows = tables[name]
        if n == 0:
            errors.append("slot %d: %s is empty but the slot points at it" % (pos, name))

        seen = {}
        for code, text in rows:
            if code in seen:
                notes.append("%s: 0x%08X stands twice (%r, %r); the first is shown"
                             % (name, code, seen[code], text))
            else:
                seen[code] = text

        if key == 0x3F000000:
            bad = [c for c, _ in rows if c & ~0x3F000000]
            for c in bad:
                notes.append("%s: 0x%08X has bits outside the module field" % (name, c))
            continue
        if key == 0x000C0000:
            for c, _ in rows:
                if c & ~0x000C0000:
                    notes.append("%s: 0x%08X has bits outside the layer field" % (name, c))
            continue
        if key == 0xC0000200:
            for c, _ in rows:
                if c & 0xFFFFFE00 != 0xC0000200 or not c & NUMBER_MASK:
                    notes.append("%s: 0x%08X is not a common error code" % (name, c))
            continue

        for code, text in rows:
            if code & KEY_MASK != key:
                notes.append("%s: 0x%08X %r does not carry key 0x%08X (stored as 0x%08X)"
                             % (name, code, text, key, code & KEY_MASK))
            number = code & NUMBER_MASK
            if number == 0 and not code & COMMON_FLAG:
                if not code & FUNC_MASK:
                    notes.append("%s: 0x%08X %r is a function row with function 0"
                                 % (name, code, text))
            else:
                if code & COMMON_FLAG:
                    notes.append("%s: 0x%08X %r carries the common flag" % (name, code, text))
                if code & FUNC_MASK:
                    notes.append("%s: 0x%08X %r is an error row that also carries function %d"
                                 % (name, code, text, (code & FUNC_MASK) >> 10))

    for name in tables:
        if name not in indexed and tables[name][0] > 0 and name != "IOCTLErrorCodeText":
            notes.append("%s is not in the index" % name)
    if "IOCTLErrorCodeText" not in tables:
        errors.append("IOCTLErrorCodeText missing")
    elif tables["IOCTLErrorCodeText"][0] != 6:
        errors.append("IOCTLErrorCodeText holds %d entries, expected 6" % tables["IOCTLErrorCodeText"][0])

    # The declaration list must follow the index slot for slot.
    list_path = os.path.join(root, "api", "ErrorTableList.h")
    listed = [(n, int(c)) for n, c in LIST_RE.findall(open(list_path, encoding="utf-8").read())]
    if len(listed) != len(slots):
        errors.append("ErrorTableList.h lists %d tables, index has %d slots" % (len(listed), len(slots)))
    for pos, ((lname, lcount), (key, sname)) in enumerate(zip(listed, slots)):
        if lname not in tables:
            errors.append("ErrorTableList.h: %s is not defined" % lname)
            continue
        if sname is not None and sname != lname:
            errors.append("slot %d: index has %s, list has %s" % (pos, sname, lname))
        if sname is None and tables[lname][0] != 0:
            errors.append("slot %d: null slot but %s is not empty" % (pos, lname))
        if tables[lname][0] != lcount:
            errors.append("%s: list says %d entries, table has %d" % (lname, lcount, tables[lname][0]))

    total = sum(n for n, _ in tables.values())
    print("%d tables, %d slots, %d entries" % (len(tables), len(slots), total))
    for n in notes:
        print("note: " + n)
    for e in errors:
        print("ERROR: " + e)
    print("FAILED" if errors else "OK")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Turns the message catalogue (key -> English text) into C++ constants.

Usage: gen_catalogue.py catalogue.json out.h out.cpp
Each key becomes an `i18n_template` constant whose name is the key with every
character outside [A-Za-z0-9] replaced by '_' ("{cur}" becomes "cur"), plus a
constexpr count of its placeholders so exception classes check their arity at
compile time.
"""
import json
import re
import sys

PLACEHOLDER = re.compile(r"%([0-9]+):s|%%|%")


def identifier(key):
    return re.sub(r"[^A-Za-z0-9]", "_", key.replace("{cur}", "cur"))


def placeholder_count(key, text):
    indices = set()
    for m in PLACEHOLDER.finditer(text):
        if m.group(1) is not None:
            indices.add(int(m.group(1)))
        elif m.group(0) != "%%":
            sys.exit(f"{key}: malformed '%' in catalogue text")
    if indices and indices != set(range(len(indices))):
        sys.exit(f"{key}: placeholders are not 0..n-1: {sorted(indices)}")
    return len(indices)


def c_string(s):
    out = []
    for b in s.encode("utf-8"):
        ch = chr(b)
        if ch == "\\":
            out.append("\\\\")
        elif ch == '"':
            out.append('\\"')
        elif 32 <= b < 127:
            out.append(ch)
        else:
            out.append("\\%03o" % b)
    return '"' + "".join(out) + '"'


def main():
    src, out_h, out_cpp = sys.argv[1:4]
    with open(src, encoding="utf-8") as f:
        try:
            catalogue = json.load(f, object_pairs_hook=lambda pairs: pairs)
        except json.JSONDecodeError as e:
            sys.exit(f"{src}: {e}")
    seen = set()
    entries = []
    for key, text in catalogue:
        if key in seen:
            sys.exit(f"{src}: duplicate key {key}")
        if not isinstance(text, str) or not re.fullmatch(r"[A-Za-z0-9_.{}]+", key):
            sys.exit(f"{src}: bad entry {key!r}")
        seen.add(key)
        entries.append((key, text, identifier(key), placeholder_count(key, text)))
    ids = [e[2] for e in entries]
    if len(set(ids)) != len(ids):
        sys.exit(f"{src}: two keys map to one identifier")

    ns = "brenholt::monitoring_modules::libi18n::catalogue"
    with open(out_h, "w", encoding="utf-8") as h:
        h.write("// Generated from catalogue.json; do not edit.\n#pragma once\n\n")
        h.write("#include <cstddef>\n#include <vector>\n\n#include \"libi18n/i18n.h\"\n\n")
        h.write(f"namespace {ns} {{\n\n")
        for key, text, ident, n in entries:
            h.write(f"extern const i18n_template {ident};\n")
            h.write(f"inline constexpr std::size_t {ident}_args = {n};\n")
        h.write("\n// Every entry, in the order of the catalogue.\n")
        h.write("const std::vector<const i18n_template*>& all();\n\n")
        h.write(f"}}  // namespace {ns}\n")
    with open(out_cpp, "w", encoding="utf-8") as c:
        c.write("// Generated from catalogue.json; do not edit.\n")
        c.write("#include \"libi18n/catalogue.h\"\n\n")
        c.write(f"namespace {ns} {{\n\n")
        for key, text, ident, n in entries:
            c.write(f"const i18n_template {ident}{{{c_string(key)}, {c_string(text)}}};\n")
        c.write("\nconst std::vector<const i18n_template*>& all() {\n")
        c.write("    static const std::vector<const i18n_template*> table{\n")
        for e in entries:
            c.write(f"        &{e[2]},\n")
        c.write("    };\n    return table;\n}\n\n")
        c.write(f"}}  // namespace {ns}\n")


if __name__ == "__main__":
    main()

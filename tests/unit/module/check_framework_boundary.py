#!/usr/bin/env python3
"""The module beside a framework library that offers no more than its contract.

1. Every symbol of the framework that the module needs (its undefined dynamic symbols in
   our namespaces) stands in the contract list; the extras are named.
2. The interfaces whose objects the framework makes, and the module's own logs that
   implement one of them, have exactly their contracted virtual slots: a further slot is
   a call through garbage on an object of the closed library.

usage: check_framework_boundary.py MODULE LIBRARY CONTRACT
"""
import re
import subprocess
import sys

PREFIX = "brenholt::monitoring_modules::"
STRING = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"


def skip_template_argument(text, i):
    """Index after the template argument list that opens at text[i] == '<'."""
    depth = 0
    while i < len(text):
        if text[i] == "<":
            depth += 1
        elif text[i] == ">":
            depth -= 1
            if depth == 0:
                return i + 1
        i += 1
    return i


def normalise(name):
    name = name.replace(STRING, "std::string").replace("[abi:cxx11]", "").replace(PREFIX, "")
    # Default arguments of the hash containers.
    for default in (", std::hash<", ", std::equal_to<", ", std::allocator<"):
        while True:
            i = name.find(default)
            if i < 0:
                break
            end = skip_template_argument(name, i + len(default) - 1)
            name = name[:i] + name[end:]
    return re.sub(r"\s+>", ">", name)


def symbols(args):
    out = subprocess.run(["nm"] + args, check=True, capture_output=True, text=True).stdout
    return out.splitlines()


def class_member(name, cls):
    short = cls.rsplit("::", 1)[1]
    return (name in ("typeinfo for " + cls, "vtable for " + cls, "typeinfo name for " + cls)
            or name.startswith(cls + "::" + short + "(") or name.startswith(cls + "::~" + short + "("))


def main(module, library, contract_file):
    exact, classes = set(), []
    for line in open(contract_file, encoding="utf-8"):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        if line.startswith("class "):
            classes.append(line[len("class "):])
        else:
            exact.add(line)

    failures = []
    needed = [normalise(line.split(" U ", 1)[1].split("@")[0])
              for line in symbols(["-D", "--undefined-only", "-C", module]) if " U " in line]
    ours = [n for n in needed if "libvurohelper::" in n or "liblog::" in n or "libi18n::" in n]
    extra = [n for n in ours if n not in exact and not any(class_member(n, c) for c in classes)]
    if extra:
        failures.append("The module needs of the framework what its contract does not offer:\n  " +
                        "\n  ".join(sorted(extra)))

    # Virtual table sizes: the offset to the top, the type information, then the slots.
    slots = {
        module: {"liblog::null_logger": 3, "liblog::memory_logger": 3, "liblog::multiplex_logger": 3},
        library: {"libvurohelper::logging::file_log": 3, "libvurohelper::logging::sensor_log": 3,
                  "libvurohelper::messaging::message_service_interface": 3,
                  "libvurohelper::messaging::message_service": 3,
                  "libvurohelper::settings::settings_source": 4,
                  "libvurohelper::settings::sensor_data_wrapper": 4},
    }
    for binary, expected in slots.items():
        sizes = {}
        for line in symbols(["-S", "-C", binary]):
            m = re.match(r"^[0-9a-f]+ ([0-9a-f]+) \w vtable for (.*)$", line)
            if m:
                sizes[normalise(m.group(2))] = int(m.group(1), 16) // 8 - 2
        for cls, count in expected.items():
            if cls not in sizes:
                failures.append(f"{binary}: no virtual table of {cls} to measure")
            elif sizes[cls] != count:
                failures.append(f"{binary}: {cls} has {sizes[cls]} virtual slots, its interface {count}")

    if failures:
        print("\n".join(failures))
        return 1
    print(f"{len(ours)} framework symbols needed, all in the contract; virtual tables as contracted")
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))

#!/usr/bin/env python3
"""Assembles the module definition document and embeds it in a C++ source.

Usage:
  gen_definition.py [--definition-dir DIR] [--catalogue FILE] [--cpp OUT.cpp] [--json OUT.json]

Inputs (all under --definition-dir, default module/definition):
  module.json          Revision and MetaData
  sensors.json         sensor entries
  checks.json          check entries
  sections.json        sections of settings
  groups.json          groups written out item by item
  channel_groups.json  groups made of numbered channels by one rule
  lookups.json         value tables of channels
  languages.json       languages of the Text section and their key sets
  text/<Language>.json translations (optional per language): catalogue key -> text

Every Display and Help text comes from the catalogue (--catalogue, default
lib/libi18n/catalogue.json) by its key; the entry files carry no English text.
The document is one UTF-8 line with one blank after each colon and comma.

Exits 1 with a message naming the file, entry or key on any inconsistency, and
writes no output then.
"""
import argparse
import json
import os
import re
import sys
import tempfile

CUR = "{cur}"
TOP_LEVEL = ("Revision", "MetaData", "Sensors", "MetaScans", "Checks", "Sections", "Groups", "Lookups", "Text")
SETTING_KINDS = ("Text", "IntegerSigned", "Floatingpoint", "Selection")
KIND_FIELDS = {
    "Text": ("Maxlength", "Multiline", "Security"),
    "IntegerSigned": ("IsMinimumSet", "Minimum", "IsMaximumSet", "Maximum"),
    "Floatingpoint": ("IsMinimumSet", "Minimum", "IsMaximumSet", "Maximum"),
    "Selection": ("Mode", "Options"),
}
# Bytes per string constant of the C++ source: well below the 16 KiB a single
# literal may hold in the strictest compiler the module is built with.
PIECE_BYTES = 8000
LINE_CHARS = 100


class BuildError(Exception):
    pass


def fail(message):
    raise BuildError(message)


# --- Reading -----------------------------------------------------------------

def _unique_object(path):
    def hook(pairs):
        obj = {}
        for key, value in pairs:
            if key in obj:
                fail(f"{path}: duplicate key '{key}'")
            obj[key] = value
        return obj
    return hook


def load_json(path):
    try:
        with open(path, encoding="utf-8") as f:
            return json.load(f, object_pairs_hook=_unique_object(path))
    except OSError as e:
        fail(f"{path}: cannot read: {e.strerror}")
    except (json.JSONDecodeError, UnicodeDecodeError) as e:
        fail(f"{path}: not valid JSON: {e}")


def expect_fields(where, obj, required, optional=()):
    if not isinstance(obj, dict):
        fail(f"{where}: expected an object")
    missing = [k for k in required if k not in obj]
    if missing:
        fail(f"{where}: missing field(s) {', '.join(missing)}")
    unknown = [k for k in obj if k not in required and k not in optional]
    if unknown:
        fail(f"{where}: unknown field(s) {', '.join(unknown)}")


def expect_type(where, value, kind):
    if not isinstance(value, kind) or (kind is int and isinstance(value, bool)):
        fail(f"{where}: expected {kind.__name__}, got {json.dumps(value)}")


def string_list(where, value):
    expect_type(where, value, list)
    for v in value:
        expect_type(where, v, str)
    return list(value)


def by_name(where, entries):
    """Entries keyed by their Name, in alphabetical order of the names."""
    expect_type(where, entries, list)
    named = {}
    for entry in entries:
        name = entry.get("Name") if isinstance(entry, dict) else None
        if not isinstance(name, str) or not name:
            fail(f"{where}: an entry has no Name")
        if name in named:
            fail(f"{where}: '{name}' is defined twice")
        named[name] = entry
    return dict(sorted(named.items()))


# --- Texts -------------------------------------------------------------------

class Texts:
    """English texts by key, with the channel templates expanded."""

    def __init__(self, catalogue_path, catalogue, channel_numbers):
        self.path = catalogue_path
        self.catalogue = catalogue
        self.channel_numbers = channel_numbers
        self.english = dict(self.expand_all(catalogue.keys(), lambda key: catalogue[key]))

    def numbers_of(self, template):
        """Channel numbers for which a template key exists: those of its setting."""
        group, _, rest = template.partition(".")
        setting = rest.partition(".")[0]
        numbers = self.channel_numbers.get((group, setting))
        if not numbers:
            fail(f"{self.path}: template key '{template}' names no channel setting of a channel group")
        return numbers

    def expand_all(self, keys, text_of):
        for key in keys:
            if CUR in key:
                for n in self.numbers_of(key):
                    yield key.replace(CUR, str(n)), text_of(key).replace(CUR, str(n))
            else:
                yield key, text_of(key)

    def __call__(self, key, user):
        if key not in self.english:
            fail(f"{self.path}: missing key '{key}' (needed by {user})")
        return self.english[key]


def load_catalogue(path):
    catalogue = load_json(path)
    expect_type(path, catalogue, dict)
    for key, text in catalogue.items():
        expect_type(f"{path}: '{key}'", text, str)
    return catalogue


# --- Entries -----------------------------------------------------------------

def build_metadata(path, source, text):
    expect_fields(path, source, ("Revision", "MetaData"))
    expect_type(f"{path}: Revision", source["Revision"], int)
    meta = source["MetaData"]
    expect_fields(f"{path}: MetaData", meta, ("Vendor", "Name", "Contact", "Version"))
    return source["Revision"], {
        "Vendor": meta["Vendor"],
        "Name": meta["Name"],
        "Display": text("module.display", "MetaData"),
        "Description": text("module.description", "MetaData"),
        "Contact": meta["Contact"],
        "Version": meta["Version"],
    }


def build_sensor(where, name, src, text):
    expect_fields(where, src,
                  ("Name", "ManualLink", "ResourceUsage", "Compatibility", "Family", "RequiredChecks", "Settings",
                   "Tags"),
                  ("RecommendedInterval", "Flag"))
    expect_type(f"{where}: ResourceUsage", src["ResourceUsage"], int)
    expect_fields(f"{where}: Settings", src["Settings"], ("Sections",))
    out = {
        "Name": name,
        "Display": text(f"{name}.display", where),
        "Description": text(f"{name}.description", where),
        "Help": text(f"{name}.help", where),
        "ManualLink": src["ManualLink"],
        "ResourceUsage": src["ResourceUsage"],
    }
    if "RecommendedInterval" in src:
        expect_type(f"{where}: RecommendedInterval", src["RecommendedInterval"], int)
        out["RecommendedInterval"] = src["RecommendedInterval"]
    out["Compatibility"] = string_list(f"{where}: Compatibility", src["Compatibility"])
    out["Family"] = string_list(f"{where}: Family", src["Family"])
    if "Flag" in src:
        out["Flag"] = string_list(f"{where}: Flag", src["Flag"])
    out["RequiredChecks"] = string_list(f"{where}: RequiredChecks", src["RequiredChecks"])
    out["Settings"] = {"Sections": string_list(f"{where}: Settings.Sections", src["Settings"]["Sections"])}
    out["Tags"] = string_list(f"{where}: Tags", src["Tags"])
    return out


def build_check(where, name, src):
    expect_fields(where, src, ("Name", "Sections"))
    return {"Name": name, "Sections": string_list(f"{where}: Sections", src["Sections"])}


def build_section(where, name, src, text):
    expect_fields(where, src, ("Name", "Scope", "Groups"))
    return {
        "Name": name,
        "Display": text(f"{name}.display", where),
        "Scope": src["Scope"],
        "Groups": string_list(f"{where}: Groups", src["Groups"]),
    }


def build_setting(where, group, src, text):
    expect_fields(where, src, ("Name", "Default"), SETTING_KINDS + ("Flags",))
    name = src["Name"]
    expect_type(f"{where}: Name", name, str)
    expect_type(f"{where}: Default", src["Default"], str)
    kinds = [k for k in SETTING_KINDS if k in src]
    if len(kinds) != 1:
        fail(f"{where}: needs exactly one of {', '.join(SETTING_KINDS)}")
    kind = kinds[0]
    key = f"{group}.{name}"
    out = {
        "Name": name,
        "Display": text(f"{key}.display", where),
        "Help": text(f"{key}.help", where),
        "Default": src["Default"],
    }
    fields = src[kind]
    required = ("Options",) if kind == "Selection" else ()
    if kind in ("IntegerSigned", "Floatingpoint"):
        required = KIND_FIELDS[kind]
    expect_fields(f"{where}: {kind}", fields, required, KIND_FIELDS[kind])
    if kind == "Selection":
        values = string_list(f"{where}: Options", fields["Options"])
        if src["Default"] not in values:
            fail(f"{where}: Default '{src['Default']}' is not one of its options")
        body = {"Mode": fields["Mode"]} if "Mode" in fields else {}
        body["Options"] = [{"Display": text(f"{key}.option.{v}", where), "Value": v} for v in values]
    else:
        body = {k: fields[k] for k in KIND_FIELDS[kind] if k in fields}
    out[kind] = body
    if "Flags" in src:
        out["Flags"] = string_list(f"{where}: Flags", src["Flags"])
    return out


def build_items(where, group, items, text):
    expect_type(where, items, list)
    built = []
    for i, item in enumerate(items):
        at = f"{where}: item {i + 1}"
        expect_fields(at, item, ("Setting",), ("DependsOn", "Condition"))
        if ("DependsOn" in item) != ("Condition" in item):
            fail(f"{at}: DependsOn and Condition go together")
        setting = build_setting(f"{at} ({item['Setting'].get('Name')})", group, item["Setting"], text)
        out = {"Setting": setting}
        if "DependsOn" in item:
            out["DependsOn"] = item["DependsOn"]
            out["Condition"] = item["Condition"]
        built.append(out)
    return built


def substitute(value, n):
    if isinstance(value, str):
        return value.replace(CUR, str(n))
    if isinstance(value, list):
        return [substitute(v, n) for v in value]
    if isinstance(value, dict):
        return {k: substitute(v, n) for k, v in value.items()}
    return value


def expand_channel_group(where, src):
    """(setting template, channel number, item) for the items of every channel, one
    channel after the other.

    An always-on channel has no switch, so its items that depend on the switch
    depend on nothing.
    """
    expect_fields(where, src, ("Name", "Channels", "AlwaysOn", "Switch", "Items"))
    expect_fields(f"{where}: Channels", src["Channels"], ("First", "Last"))
    first, last = src["Channels"]["First"], src["Channels"]["Last"]
    expect_type(f"{where}: Channels.First", first, int)
    expect_type(f"{where}: Channels.Last", last, int)
    expect_type(f"{where}: AlwaysOn", src["AlwaysOn"], list)
    expect_type(f"{where}: Items", src["Items"], list)
    templates = []
    for i, item in enumerate(src["Items"]):
        expect_type(f"{where}: item {i + 1}", item, dict)
        expect_type(f"{where}: item {i + 1}: Setting", item.get("Setting"), dict)
        template = item["Setting"].get("Name")
        expect_type(f"{where}: item {i + 1}: Name", template, str)
        if CUR not in template:
            fail(f"{where}: setting '{template}' does not contain {CUR}")
        templates.append(template)
    switch = src["Switch"]
    if switch not in templates:
        fail(f"{where}: Switch '{switch}' is not one of its settings")
    expanded = []
    for n in range(first, last + 1):
        always_on = n in src["AlwaysOn"]
        for template, item in zip(templates, src["Items"]):
            if always_on and template == switch:
                continue
            item = dict(item)
            if always_on and item.get("DependsOn") == switch:
                item.pop("DependsOn")
                item.pop("Condition", None)
            expanded.append((template, n, substitute(item, n)))
    return expanded


def channel_numbers(path, channel_groups):
    """(group, setting template) -> the channel numbers that have the setting."""
    numbers = {}
    for name, src in channel_groups.items():
        for template, n, _ in expand_channel_group(f"{path}: {name}", src):
            numbers.setdefault((name, template), []).append(n)
    return numbers


def check_dependencies(where, items):
    settings = {item["Setting"]["Name"]: item["Setting"] for item in items}
    for item in items:
        if "DependsOn" not in item:
            continue
        at = f"{where}: {item['Setting']['Name']}"
        target = settings.get(item["DependsOn"])
        if target is None or target is item["Setting"]:
            fail(f"{at}: DependsOn '{item['DependsOn']}' is no other setting of the group")
        if "Selection" in target:
            values = {o["Value"] for o in target["Selection"]["Options"]}
            for value in item["Condition"].split(","):
                if value not in values:
                    fail(f"{at}: Condition value '{value}' is not an option of '{item['DependsOn']}'")


def build_lookup(where, name, src, text):
    expect_fields(where, src, ("Name", "Mode", "LookupValues"))
    expect_type(f"{where}: LookupValues", src["LookupValues"], list)
    values = []
    for v in src["LookupValues"]:
        expect_fields(f"{where}: value", v, ("Value", "Name", "State"))
        expect_type(f"{where}: Value", v["Value"], int)
        values.append({
            "Name": v["Name"],
            "Display": text(f"lookup.{name}.{v['Value']}", where),
            "Value": v["Value"],
            "State": v["State"],
        })
    return {"Name": name, "Mode": src["Mode"], "LookupValues": values}


def resolve(where, names, known, what):
    for name in names:
        if name not in known:
            fail(f"{where}: {what} '{name}' does not exist")


# --- Text section ------------------------------------------------------------

def key_set(path, name, rule, catalogue):
    where = f"{path}: KeySets.{name}"
    expect_fields(where, rule, (), ("OmitPrefixes", "OmitKeys", "ExtraKeys"))
    prefixes = tuple(string_list(where, rule.get("OmitPrefixes", [])))
    omit = string_list(where, rule.get("OmitKeys", []))
    extras = rule.get("ExtraKeys", {})
    expect_type(where, extras, dict)
    # The rules name keys; a renamed catalogue key would change the sets unnoticed.
    for key in omit:
        if key not in catalogue:
            fail(f"{where}: omitted key '{key}' is not in the catalogue")
    for key, fallback in extras.items():
        if key in catalogue:
            fail(f"{where}: extra key '{key}' is already in the catalogue")
        expect_type(f"{where}: '{key}'", fallback, str)
    keys = [k for k in catalogue if not k.startswith(prefixes) and k not in omit]
    return keys, extras


def build_text_section(definition_dir, texts):
    path = os.path.join(definition_dir, "languages.json")
    config = load_json(path)
    expect_fields(path, config, ("CatalogueLanguage", "Languages", "KeySets"))
    expect_type(f"{path}: Languages", config["Languages"], list)
    names = [entry.get("Name") if isinstance(entry, dict) else None for entry in config["Languages"]]
    if config["CatalogueLanguage"] not in names:
        fail(f"{path}: CatalogueLanguage '{config['CatalogueLanguage']}' is not among the Languages")
    text_dir = os.path.join(definition_dir, "text")
    if os.path.isdir(text_dir):
        for file in sorted(os.listdir(text_dir)):
            language = file[:-len(".json")]
            if not file.endswith(".json"):
                continue
            if language not in names:
                fail(f"{os.path.join(text_dir, file)}: no such language in {path}")
            if language == config["CatalogueLanguage"]:
                fail(f"{os.path.join(text_dir, file)}: {language} texts come from the catalogue only")
    section = {}
    for entry in config["Languages"]:
        expect_fields(f"{path}: language", entry, ("Name", "Keys"))
        language = entry["Name"]
        if language in section:
            fail(f"{path}: language '{language}' is listed twice")
        if entry["Keys"] not in config["KeySets"]:
            fail(f"{path}: {language}: key set '{entry['Keys']}' does not exist")
        keys, extras = key_set(path, entry["Keys"], config["KeySets"][entry["Keys"]], texts.catalogue)
        if language == config["CatalogueLanguage"]:
            translated = {}
        else:
            translated = load_translation(os.path.join(text_dir, language + ".json"), set(keys) | set(extras))
        table = dict(texts.expand_all(keys, lambda k: translated.get(k, texts.catalogue[k])))
        for key, fallback in extras.items():
            table[key] = translated.get(key, fallback)
        section[language] = {"Translation": {k: {"Display": v} for k, v in table.items()}}
    return section


def load_translation(path, allowed):
    """A language file's texts; until a file exists, every key falls back to English."""
    if not os.path.exists(path):
        return {}
    translated = load_json(path)
    expect_type(path, translated, dict)
    for key, value in translated.items():
        if key not in allowed:
            fail(f"{path}: key '{key}' does not belong to this language")
        expect_type(f"{path}: '{key}'", value, str)
    return translated


# --- Document ----------------------------------------------------------------

def build_document(definition_dir, catalogue_path):
    def source(name):
        return os.path.join(definition_dir, name)

    channel_sources = by_name(source("channel_groups.json"), load_json(source("channel_groups.json")))
    catalogue = load_catalogue(catalogue_path)
    text = Texts(catalogue_path, catalogue, channel_numbers(source("channel_groups.json"), channel_sources))

    revision, metadata = build_metadata(source("module.json"), load_json(source("module.json")), text)

    path = source("sensors.json")
    sensors = {n: build_sensor(f"{path}: {n}", n, s, text) for n, s in by_name(path, load_json(path)).items()}
    path = source("checks.json")
    checks = {n: build_check(f"{path}: {n}", n, s) for n, s in by_name(path, load_json(path)).items()}
    path = source("sections.json")
    sections = {n: build_section(f"{path}: {n}", n, s, text) for n, s in by_name(path, load_json(path)).items()}

    path = source("groups.json")
    group_sources = {n: (f"{path}: {n}", s) for n, s in by_name(path, load_json(path)).items()}
    for name, src in channel_sources.items():
        where = f"{source('channel_groups.json')}: {name}"
        if name in group_sources:
            fail(f"{where}: group is also defined in {path}")
        items = [item for _, _, item in expand_channel_group(where, src)]
        group_sources[name] = (where, {"Name": name, "Items": items})
    groups = {}
    for name, (where, src) in sorted(group_sources.items()):
        expect_fields(where, src, ("Name", "Items"))
        items = build_items(where, name, src["Items"], text)
        if len({i["Setting"]["Name"] for i in items}) != len(items):
            fail(f"{where}: a setting name occurs twice")
        check_dependencies(where, items)
        groups[name] = {"Name": name, "Items": items}

    path = source("lookups.json")
    lookups = {n: build_lookup(f"{path}: {n}", n, s, text) for n, s in by_name(path, load_json(path)).items()}

    for name, sensor in sensors.items():
        where = f"{source('sensors.json')}: {name}"
        resolve(where, sensor["RequiredChecks"], checks, "RequiredChecks entry")
        resolve(where, sensor["Settings"]["Sections"], sections, "section")
    for name, check in checks.items():
        resolve(f"{source('checks.json')}: {name}", check["Sections"], sections, "section")
    for name, section in sections.items():
        resolve(f"{source('sections.json')}: {name}", section["Groups"], groups, "group")

    document = {
        "Revision": revision,
        "MetaData": metadata,
        "Sensors": sensors,
        "MetaScans": {},
        "Checks": checks,
        "Sections": sections,
        "Groups": groups,
        "Lookups": lookups,
        "Text": build_text_section(definition_dir, text),
    }
    assert tuple(document) == TOP_LEVEL
    return json.dumps(document, ensure_ascii=False, separators=(", ", ": "))


# --- Output ------------------------------------------------------------------

def pieces(data, size):
    """Splits UTF-8 bytes into pieces of at most size bytes, never inside a character."""
    start = 0
    while start < len(data):
        end = min(start + size, len(data))
        while end < len(data) and (data[end] & 0xC0) == 0x80:
            end -= 1
        yield data[start:end]
        start = end


def c_literal_lines(data):
    """Adjacent C++ literals for the bytes. Octal escapes take exactly three digits,
    so no escape runs into the next character, and no source charset is assumed."""
    lines, line = [], ""
    for b in data:
        if b == 0x22:
            token = '\\"'
        elif b == 0x5C:
            token = "\\\\"
        elif b == 0x3F:
            token = "\\?"  # no trigraph can form
        elif 0x20 <= b < 0x7F:
            token = chr(b)
        else:
            token = f"\\{b:03o}"
        if len(line) + len(token) > LINE_CHARS:
            lines.append(line)
            line = ""
        line += token
    lines.append(line)
    return [f'"{line}"' for line in lines]


def cpp_source(text):
    data = text.encode("utf-8")
    out = [
        "// Generated by scripts/gen_definition.py from module/definition/ and lib/libi18n/catalogue.json.",
        "// Edit those, not this file.",
        '#include "module/definition/module_definition_text.h"',
        "",
        "#include <cstddef>",
        "#include <string_view>",
        "",
        "namespace brenholt::monitoring_modules::opcua {",
        "",
        "namespace {",
        "",
        f"// {len(data)} bytes of UTF-8 in the order of the text.",
        "constexpr std::string_view pieces[] = {",
    ]
    for piece in pieces(data, PIECE_BYTES):
        literal = c_literal_lines(piece)
        out.append("    std::string_view{" + literal[0])
        out.extend("                     " + line for line in literal[1:])
        out.append(f"                     , {len(piece)}}},")
    out += [
        "};",
        "",
        "std::string join_pieces() {",
        "    std::size_t size = 0;",
        "    for (std::string_view piece : pieces) size += piece.size();",
        "    std::string text;",
        "    text.reserve(size);",
        "    for (std::string_view piece : pieces) text.append(piece);",
        "    return text;",
        "}",
        "",
        "}  // namespace",
        "",
        "const std::string& module_definition_text() {",
        "    // Local, so that a static initialiser elsewhere that asks first still finds it built.",
        "    static const std::string text = join_pieces();",
        "    return text;",
        "}",
        "",
        "namespace {",
        "// Joins the text at load of the library, before any exported function can run.",
        "[[maybe_unused]] const std::string& text_at_load = module_definition_text();",
        "}  // namespace",
        "",
        "}  // namespace brenholt::monitoring_modules::opcua",
        "",
    ]
    return "\n".join(out)


def write_file(path, content):
    """Replaces the file whole, so an interrupted run leaves no half-written output."""
    directory = os.path.dirname(os.path.abspath(path))
    os.makedirs(directory, exist_ok=True)
    fd, temp = tempfile.mkstemp(dir=directory, prefix=".gen_definition.")
    try:
        with os.fdopen(fd, "w", encoding="utf-8", newline="\n") as f:
            f.write(content)
        # mkstemp makes the file private; give it the mode of any other build output.
        umask = os.umask(0)
        os.umask(umask)
        os.chmod(temp, 0o666 & ~umask)
        os.replace(temp, path)
    except BaseException:
        os.unlink(temp)
        raise


def main(argv):
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description="Assembles the module definition document.")
    parser.add_argument("--definition-dir", default=os.path.join(root, "module", "definition"))
    parser.add_argument("--catalogue", default=os.path.join(root, "lib", "libi18n", "catalogue.json"))
    parser.add_argument("--cpp", help="C++ source to write with the text as string constants")
    parser.add_argument("--json", help="file to write the document to, as it stands in the C++ source")
    args = parser.parse_args(argv[1:])
    try:
        text = build_document(args.definition_dir, args.catalogue)
    except BuildError as e:
        print(f"gen_definition: error: {e}", file=sys.stderr)
        return 1
    if "\n" in text or "\r" in text:
        print("gen_definition: error: the document contains a line break", file=sys.stderr)
        return 1
    if args.cpp:
        write_file(args.cpp, cpp_source(text))
    if args.json:
        write_file(args.json, text)
    if not args.cpp and not args.json:
        print(f"{len(text.encode('utf-8'))} bytes")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

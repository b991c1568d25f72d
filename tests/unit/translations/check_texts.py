#!/usr/bin/env python3
# The texts a person reads, against the English catalogue (what and why: CMakeLists.txt here).
# Usage: check_texts.py <repository root> <module_definition.json>
import collections, json, os, re, sys

TOKENS = re.compile(r"%[0-9]+:s|%%|%|\[a\s[^\]]*\]\]?|\[/?(?:br|b|i|a)\]|\{cur\}")


def tokens(text):
    return collections.Counter(TOKENS.findall(text))


def problems(root, definition):
    load = lambda *path: json.load(open(os.path.join(*path), encoding="utf-8"))
    catalogue, doc = load(root, "lib", "libi18n", "catalogue.json"), load(definition)
    found, expanded, used = [], {}, set()
    for key, text in catalogue.items():
        indices = sorted({int(i) for i in re.findall(r"%([0-9]+):s", text)})
        if indices != list(range(len(indices))) or "%" in re.sub(r"%[0-9]+:s|%%", "", text):
            found.append(f"catalogue: {key}: placeholders {indices} or a lone percent sign")
        first = 2 if key.startswith("connection_custom.channel{cur}.") else 1
        for n in map(str, range(first, 11 if "{cur}" in key else 2)):
            expanded[key.replace("{cur}", n)] = text.replace("{cur}", n)
    english = doc["Text"]["English"]["Translation"]

    def expect(actual, key):
        used.add(key)
        if key not in expanded or actual != expanded[key] or english.get(key, {}).get("Display") != expanded[key]:
            found.append(f"definition: {key}: {actual!r}, the catalogue has {expanded.get(key)!r}")

    expect(doc["MetaData"]["Display"], "module.display")
    expect(doc["MetaData"]["Description"], "module.description")
    for name, sensor in doc["Sensors"].items():
        for field in ("Display", "Description", "Help"):
            expect(sensor[field], f"{name}.{field.lower()}")
    for name, section in doc["Sections"].items():
        expect(section["Display"], name + ".display")
    for group, entry in doc["Groups"].items():
        for setting in (item["Setting"] for item in entry["Items"]):
            key = f"{group}.{setting['Name']}"
            expect(setting["Display"], key + ".display")
            expect(setting["Help"], key + ".help")
            for option in setting.get("Selection", {}).get("Options", []):
                expect(option["Display"], f"{key}.option.{option['Value']}")
    for name, lookup in doc["Lookups"].items():
        for value in lookup["LookupValues"]:
            expect(value["Display"], f"lookup.{name}.{value['Value']}")
    message = lambda key: key.startswith(("error.", "message.", "channel.")) or ".error." in key
    found += [f"definition: {key} is used by no entry" for key in english if key not in used and not message(key)]
    found += [f"definition: English lacks {key} or has it in excess" for key in set(english) ^ set(expanded)]

    config = load(root, "module", "definition", "languages.json")
    for language in (entry for entry in config["Languages"] if entry["Name"] != config["CatalogueLanguage"]):
        name, rule = language["Name"], config["KeySets"][language["Keys"]]
        texts = load(root, "module", "definition", "text", name + ".json")
        omitted = tuple(rule.get("OmitPrefixes", []))
        expected = {k: v for k, v in catalogue.items() if not k.startswith(omitted) and k not in rule.get("OmitKeys", [])}
        for key, english_text in dict(expected, **rule.get("ExtraKeys", {})).items():
            text = texts.get(key)
            if not isinstance(text, str) or not text.strip():
                found.append(f"{name}: {key}: missing or empty")
            elif tokens(text) != tokens(english_text):
                found.append(f"{name}: {key}: {sorted(tokens(text).elements())}, English has {sorted(tokens(english_text).elements())}")
    return found


if __name__ == "__main__":
    # The comparison itself must see what it is meant to catch.
    assert tokens("Wert %1:s von [b]%0:s[/b] {cur} 100%%") == tokens("Value [b]%0:s[/b] of %1:s {cur} 100%%")
    assert all(tokens(t) != tokens("%0:s [b]x[/b] 5%% {cur}") for t in ("%1:s [b]x[/b] 5%% {cur}", "%0:s x 5%% {cur}",
                                                                       "%0:s [b]x[/b] 5% {cur}", "%0:s [b]x[/b] 5%% #"))
    found = problems(sys.argv[1], sys.argv[2])
    print("\n".join(found + [f"{len(found)} problem(s)"]))
    sys.exit(1 if found else 0)

#!/usr/bin/env python3
"""Checks the translated texts against the English catalogue: each language translates every key
of its key set (a missing text silently falls back to English) and keeps the English text's
placeholders, percent signs, markup tags and {cur} markers. Usage: check_translations.py <repository root>"""
import collections
import json
import os
import re
import sys

TOKENS = re.compile(r"%[0-9]+:s|%%|%|\[a\s[^\]]*\]\]?|\[/?(?:br|b|i|a)\]|\{cur\}")


def tokens(text):
    return collections.Counter(TOKENS.findall(text))


def problems(root):
    load = lambda *path: json.load(open(os.path.join(root, *path), encoding="utf-8"))
    catalogue, config = load("lib", "libi18n", "catalogue.json"), load("module", "definition", "languages.json")
    found = []
    for language in (entry for entry in config["Languages"] if entry["Name"] != config["CatalogueLanguage"]):
        name, rule = language["Name"], config["KeySets"][language["Keys"]]
        texts = load("module", "definition", "text", name + ".json")
        omitted = tuple(rule.get("OmitPrefixes", []))
        expected = {k: v for k, v in catalogue.items() if not k.startswith(omitted) and k not in rule.get("OmitKeys", [])}
        for key, english in dict(expected, **rule.get("ExtraKeys", {})).items():
            text = texts.get(key)
            if not isinstance(text, str) or not text.strip():
                found.append(f"{name}: {key}: missing or empty")
            elif tokens(text) != tokens(english):
                found.append(f"{name}: {key}: {sorted(tokens(text).elements())}, English has {sorted(tokens(english).elements())}")
    return found


if __name__ == "__main__":
    # The comparison itself must see what it is meant to catch.
    assert tokens("Wert %1:s von [b]%0:s[/b] {cur} 100%%") == tokens("Value [b]%0:s[/b] of %1:s {cur} 100%%")
    assert all(tokens(t) != tokens("%0:s [b]x[/b] 5%% {cur}") for t in ("%1:s [b]x[/b] 5%% {cur}", "%0:s x 5%% {cur}",
                                                                       "%0:s [b]x[/b] 5% {cur}", "%0:s [b]x[/b] 5%% #"))
    found = problems(sys.argv[1])
    print("\n".join(found + [f"{len(found)} problem(s)"]))
    sys.exit(1 if found else 0)

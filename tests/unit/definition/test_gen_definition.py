#!/usr/bin/env python3
"""The definition generator on altered copies of its sources.

Usage: test_gen_definition.py <repository root>

Each case copies module/definition/ and the catalogue into a temporary
directory, changes one thing and runs scripts/gen_definition.py on the copy.
Inconsistent sources must fail the build with a message that names the culprit
and leave no output behind; translations must fall back to English.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = None


def edit_json(path, change):
    """Changes a JSON file in place; a translation not yet written counts as empty."""
    data = {}
    if os.path.exists(path):
        with open(path, encoding="utf-8") as f:
            data = json.load(f)
    change(data)
    with open(path, "w", encoding="utf-8") as f:
        json.dump(data, f, ensure_ascii=False, indent=1)


def entry(entries, name):
    return next(e for e in entries if e["Name"] == name)


def setting(groups, group, name):
    return next(i for i in entry(groups, group)["Items"] if i["Setting"]["Name"] == name)


class Generator(unittest.TestCase):
    def setUp(self):
        self.copies = []

    def tearDown(self):
        for copy in self.copies:
            shutil.rmtree(copy)

    def fresh_copy(self):
        """A private copy of the sources; the generator's output goes beside it."""
        self.tmp = tempfile.mkdtemp(prefix="gen_definition_test.")
        self.copies.append(self.tmp)
        self.definition = os.path.join(self.tmp, "definition")
        shutil.copytree(os.path.join(ROOT, "module", "definition"), self.definition,
                        ignore=shutil.ignore_patterns("CMakeLists.txt", "*.h"))
        self.catalogue = os.path.join(self.tmp, "catalogue.json")
        shutil.copy(os.path.join(ROOT, "lib", "libi18n", "catalogue.json"), self.catalogue)
        self.cpp = os.path.join(self.tmp, "out", "definition.cpp")
        self.json = os.path.join(self.tmp, "out", "definition.json")

    def source(self, *parts):
        return os.path.join(self.definition, *parts)

    def run_generator(self):
        return subprocess.run(
            [sys.executable, os.path.join(ROOT, "scripts", "gen_definition.py"),
             "--definition-dir", self.definition, "--catalogue", self.catalogue,
             "--cpp", self.cpp, "--json", self.json],
            capture_output=True, text=True)

    def document(self):
        result = self.run_generator()
        self.assertEqual(result.returncode, 0, result.stderr)
        with open(self.json, encoding="utf-8") as f:
            return json.load(f)

    def test_inconsistent_sources_fail_naming_the_culprit(self):
        def broken_json(*name):
            def write():
                with open(self.source(*name), "a", encoding="utf-8") as f:
                    f.write(",")
            return write

        def edit(change, *name):
            return lambda: edit_json(self.source(*name), change)

        def drop_catalogue_key(key):
            return lambda: edit_json(self.catalogue, lambda c: c.pop(key))

        def copy_file(source, target):
            return lambda: shutil.copy(self.source(*source), self.source(*target))

        cases = [
            ("broken sensors file", broken_json("sensors.json"), "sensors.json: not valid JSON"),
            ("broken translation", broken_json("text", "Dutch.json"), "Dutch.json: not valid JSON"),
            ("setting help", drop_catalogue_key("connection_opcua.port.help"), "'connection_opcua.port.help'"),
            ("selection option", drop_catalogue_key("connection_security.security_mode.option.sign_encrypt"),
             "'connection_security.security_mode.option.sign_encrypt'"),
            ("channel template", drop_catalogue_key("connection_custom.channel{cur}_unit.display"),
             "'connection_custom.channel1_unit.display'"),
            ("lookup value", drop_catalogue_key("lookup.server_state.7"), "'lookup.server_state.7'"),
            ("sensor text", drop_catalogue_key("certificate_sensor.help"), "'certificate_sensor.help'"),
            ("required check",
             edit(lambda s: entry(s, "certificate_sensor")["RequiredChecks"].append("ping_check"), "sensors.json"),
             "'ping_check'"),
            ("sensor section",
             edit(lambda s: entry(s, "custom_sensor")["Settings"]["Sections"].append("extra"), "sensors.json"),
             "'extra'"),
            ("check section", edit(lambda c: entry(c, "connection_check")["Sections"].append("x1"), "checks.json"),
             "'x1'"),
            ("section group",
             edit(lambda s: entry(s, "custom")["Groups"].append("connection_cusotm"), "sections.json"),
             "'connection_cusotm'"),
            ("depends on",
             edit(lambda g: setting(g, "user_authentication", "user").update(DependsOn="user_auth_method"),
                  "groups.json"),
             "'user_auth_method'"),
            ("condition",
             edit(lambda g: setting(g, "user_authentication", "user").update(Condition="username"), "groups.json"),
             "'username'"),
            ("translation outside its key set",
             edit(lambda t: t.update({"lookup.server_state.0": "Läuft"}), "text", "German.json"),
             "'lookup.server_state.0'"),
            ("extra key of the reduced languages in a full one",
             edit(lambda t: t.update({"connection_security.security_policy.option.Basic256": "Basic256"}),
                  "text", "German.json"),
             "'connection_security.security_policy.option.Basic256'"),
            ("unknown language file", copy_file(("languages.json",), ("text", "Brasilian.json")), "Brasilian.json"),
        ]
        for name, change, fragment in cases:
            with self.subTest(name):
                self.fresh_copy()
                change()
                result = self.run_generator()
                self.assertNotEqual(result.returncode, 0)
                self.assertIn(fragment, result.stderr)
                self.assertFalse(os.path.exists(self.cpp) or os.path.exists(self.json))

    def test_translations_fall_back_to_english(self):
        self.fresh_copy()
        if os.path.exists(self.source("text", "German.json")):
            os.remove(self.source("text", "German.json"))
        edit_json(self.source("text", "Dutch.json"), lambda t: (
            t.pop("connection_opcua.port.display", None),
            t.pop("connection_security.security_policy.option.Basic256", None),
            t.update({"connection_custom.channel{cur}_unit.display": "Eenheid {cur}"})))
        text = self.document()["Text"]
        english = text["English"]["Translation"]

        german = text["German"]["Translation"]
        self.assertEqual(len(german), 298)
        for key, value in german.items():
            self.assertEqual(value, english[key], key)

        dutch = text["Dutch"]["Translation"]
        self.assertEqual(len(dutch), 285)
        self.assertEqual(dutch["connection_opcua.port.display"]["Display"], "Port")
        self.assertEqual(dutch["connection_security.security_policy.option.Basic256"]["Display"], "Basic256")
        for n in range(1, 11):
            self.assertEqual(dutch[f"connection_custom.channel{n}_unit.display"]["Display"], f"Eenheid {n}")


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(f"usage: {sys.argv[0]} <repository root>")
    ROOT = os.path.abspath(sys.argv.pop(1))
    unittest.main()

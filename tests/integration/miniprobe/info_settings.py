#!/usr/bin/env python3
"""`miniprobe info NAME` for every sensor and check: each setting the entry's sections
hold, with its key, type, default, allowed values and English text as the definition
document has them, and a few settings as a user relies on them.
Usage: info_settings.py <miniprobe> <module_definition.json>"""
import json
import subprocess
import sys
import unittest

MINIPROBE, DEFINITION = sys.argv[1], sys.argv[2]
CREDENTIALS = {
    "credentials.connection_opcua.port": {
        "type": "IntegerSigned", "default": "4840", "display": "Port", "required": True,
        "limits": {"IsMinimumSet": True, "Minimum": 1, "IsMaximumSet": True, "Maximum": 65535}},
    "credentials.connection_security.security_mode": {
        "type": "Selection", "default": "none",
        "options": [{"value": "none", "display": "None (default)"}, {"value": "sign", "display": "Sign"},
                    {"value": "sign_encrypt", "display": "Sign & Encrypt"}]},
    "credentials.user_authentication.password": {
        "type": "Text", "secret": True, "depends_on": "credentials.user_authentication.user_auth_mode",
        "condition": "username_password"},
}
CUSTOM = dict(CREDENTIALS, **{
    "custom.connection_custom.channel2_nodeid": {
        "type": "Text", "default": "", "required": True, "display": "Channel #2 NodeID",
        "depends_on": "custom.connection_custom.channel2", "condition": "enable"},
    "custom.connection_custom.channel10_scale_factor": {"type": "Floatingpoint", "default": "1", "secret": False},
})
# name, number of settings, settings checked field by field
CASES = [
    ("custom_sensor", 70, CUSTOM),
    ("server_status_sensor", 10, CREDENTIALS),
    ("certificate_sensor", 10, CREDENTIALS),
    ("beckhoff_ipc_system_status_sensor", 10, CREDENTIALS),
    ("connection_check", 10, CREDENTIALS),
    ("endpoint_validation_check", 10, CREDENTIALS),
]


def run(*args):
    done = subprocess.run([MINIPROBE, *args], capture_output=True, text=True, timeout=30)
    if done.returncode != 0:
        raise AssertionError(f"miniprobe {' '.join(args)} exited {done.returncode}: {done.stderr}")
    return done.stdout


def expected_settings(definition, name):
    """(key, the setting and its item) in the order of the document."""
    entry = definition["Sensors"].get(name) or definition["Checks"][name]
    sections = entry["Settings"]["Sections"] if "Settings" in entry else entry["Sections"]
    for section in sections:
        for group in definition["Sections"][section]["Groups"]:
            for item in definition["Groups"][group]["Items"]:
                yield f"{section}.{group}.{item['Setting']['Name']}", item


class InfoSettings(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(DEFINITION, encoding="utf-8") as f:
            cls.definition = json.load(f)

    def test_the_cases_cover_every_sensor_and_check(self):
        self.assertEqual(sorted(name for name, _, _ in CASES),
                         sorted([*self.definition["Sensors"], *self.definition["Checks"]]))

    def test_every_setting_as_the_definition_has_it(self):
        for name, count, checked in CASES:
            with self.subTest(name=name):
                lines = [json.loads(line) for line in run("--json", "info", name).splitlines()]
                shown = [line for line in lines if line["event"] == "setting"]
                expected = list(expected_settings(self.definition, name))
                self.assertEqual(len(shown), count)
                self.assertEqual([s["key"] for s in shown], [key for key, _ in expected])
                for s, (key, item) in zip(shown, expected):
                    setting = item["Setting"]
                    self.assertEqual((s["display"], s["default"]), (setting["Display"], setting["Default"]), key)
                    self.assertIn(s["type"], setting, key)
                    options = setting[s["type"]].get("Options", [])
                    self.assertEqual(s.get("options", []),
                                     [{"value": o["Value"], "display": o["Display"]} for o in options], key)
                    self.assertEqual(s.get("condition"), item.get("Condition"), key)
                by_key = {s["key"]: s for s in shown}
                for key, fields in checked.items():
                    self.assertEqual({f: by_key[key].get(f) for f in fields}, fields, key)
                # The human format names every key at the start of a line, for --set.
                human = run("info", name).splitlines()
                for key, _ in expected:
                    self.assertTrue(any(line.split()[:1] == [key] for line in human), key)

    def test_an_unknown_name_is_a_usage_error_that_names_the_known_ones(self):
        done = subprocess.run([MINIPROBE, "info", "temperature_sensor"], capture_output=True, text=True, timeout=30)
        self.assertEqual(done.returncode, 3)
        self.assertIn("custom_sensor", done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

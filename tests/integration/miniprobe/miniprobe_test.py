#!/usr/bin/env python3
"""miniprobe as a person uses it, in one pass: every command of the README's miniprobe and
opcua-sim sections as written, `miniprobe demo` among them (run beside the rest), then the
exit status table of `miniprobe --help` row by row, client certificates given with @FILE,
and `miniprobe info` for every sensor and check against the module's definition.

The README's commands change in two ways so that they can run beside other tests: each
simulator's --port becomes a free port (and so does that number in later commands), and
/tmp/ paths move into a temporary directory. `openssl` is the system's, the rest comes from
the build. Every command exits 0 and every scan answers response code 0. The other rows run
against one simulator of their own, whose certificate ends in 20 days, inside the
certificate sensor's warning limit, in security mode sign with a certificate from files:
mode none would make a 4096-bit key in every miniprobe.
Usage: miniprobe_test.py <directory of miniprobe and opcua-sim> <README.md> <module_definition.json>"""
import json
import os
import re
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

BIN, README, DEFINITION = sys.argv[1:4]
MINIPROBE, SIM = os.path.join(BIN, "miniprobe"), os.path.join(BIN, "opcua-sim")
SCAN_LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  sensor \d+: response code (\d+) ")
VALUE_LINE = re.compile(r"^  (#\d+ .*?)  +(\S.*)$")
OK, WARNING, ERROR, USAGE = 0, 1, 2, 3
PORT, AUTH = "credentials.connection_opcua.port=", "credentials.user_authentication."
SECURITY, CHANNEL = "credentials.connection_security.", "custom.connection_custom.channel1_"
USAGES = "keyUsage=digitalSignature,nonRepudiation,keyEncipherment,dataEncipherment"
URI = "subjectAltName=URI:urn:miniprobe:test"
LACKS_USAGE = "a key usage extension with data encipherment (it has no key usage)"
LACKS_URI = "a URI in its subject alternative names (the application URI)"
LACKS_RSA = "an RSA key (it has an EC key)"


def readme_commands():
    """The commands of the sections' sh blocks, continuation lines joined, comments gone."""
    commands, section, block, pending = [], None, False, ""
    with open(README, encoding="utf-8") as f:
        for line in f:
            line = line.rstrip("\n")
            if line.startswith("## "):
                section = line[3:].strip()
            elif line.startswith("```"):
                block = line == "```sh" and section in ("miniprobe", "opcua-sim")
            elif block:
                pending += line
                if pending.endswith("\\"):
                    pending = pending[:-1]
                    continue
                argv = shlex.split(pending, comments=True)
                pending = ""
                if argv:
                    commands.append(argv)
    return commands


def start_sim(argv):
    """opcua-sim and its port, once it prints the URL it listens on."""
    sim = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    url = sim.stdout.readline().strip()
    assert url.startswith("opc.tcp://127.0.0.1:"), url
    return sim, url.rsplit(":", 1)[1].strip("/")


def run(argv):
    done = subprocess.run(argv, capture_output=True, text=True, timeout=120)
    return done.returncode, done.stdout + done.stderr


def watch(argv, enough):
    """Runs a watch until its output is enough, then stops it with SIGINT as a person would."""
    process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    out = ""
    while not enough(out):
        line = process.stdout.readline()
        if not line:
            process.wait()
            raise AssertionError("the watch ended by itself:\n" + out)
        out += line
    process.send_signal(signal.SIGINT)
    out += process.communicate(timeout=60)[0]
    return process.returncode, out


class Miniprobe(unittest.TestCase):
    def setUp(self):
        self.temp = tempfile.TemporaryDirectory()
        self.ports, self.sims = {}, []

    def tearDown(self):
        for sim in self.sims:
            sim.terminate()
            sim.wait(timeout=30)
            sim.stdout.close()
        self.temp.cleanup()

    def path(self, name):
        return os.path.join(self.temp.name, name)

    def localised(self, argv):
        args = []
        for arg in argv[1:]:
            for readme_port, port in self.ports.items():
                arg = re.sub(rf"(?<!\d){readme_port}(?!\d)", str(port), arg)
            args.append(arg.replace("/tmp/", self.temp.name + "/"))
        return [argv[0] if argv[0] == "openssl" else os.path.join(BIN, os.path.basename(argv[0])), *args]

    def check_output(self, argv, out):
        if "--json" in argv:
            for line in out.splitlines():
                event = json.loads(line)
                if event.get("type") == "SENSOR_SCAN_RESULT":
                    self.assertEqual(event["message"]["response_code"], 0, line)
            return
        columns = set()
        for line in out.splitlines() + [""]:
            scan, value = SCAN_LINE.match(line), VALUE_LINE.match(line)
            if scan:
                self.assertEqual(scan.group(1), "0", line)
            if value:
                columns.add(value.start(2))
            elif columns:
                self.assertEqual(len(columns), 1, "values of one scan not aligned:\n" + out)
                columns = set()

    def test_as_a_person_uses_it(self):
        commands = readme_commands()
        self.assertEqual({os.path.basename(argv[0]) for argv in commands}, {"miniprobe", "opcua-sim", "openssl"})
        self.assertIn(["build/bin/miniprobe", "watch", "server_status_sensor", "--set", PORT + "4840"], commands)
        self.assertIn(["build/bin/miniprobe", "demo"], commands)
        demo = subprocess.Popen(self.localised(["build/bin/miniprobe", "demo"]), stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
        scans = lambda out: sum(bool(SCAN_LINE.match(line)) for line in out.splitlines()) >= 2
        for argv in commands:
            with self.subTest(command=shlex.join(argv)):
                self.assertTrue(argv[0].startswith("build/bin/") or argv[0] == "openssl", "runs from the repository root")
                if argv[0].endswith("opcua-sim"):
                    self.ports[argv[argv.index("--port") + 1]] = self.free_port()
                    self.sims.append(start_sim(self.localised(argv))[0])
                elif argv[1:] != ["demo"]:
                    code, out = watch(self.localised(argv), scans) if "watch" in argv else run(self.localised(argv))
                    self.assertEqual(code, 0, out)
                    self.check_output(argv, out)
        self.exit_status_rows()
        self.info_settings()
        out = demo.communicate(timeout=300)[0]
        self.assertEqual(demo.returncode, 0, out)
        self.assertIn("Every step ended as expected.", out)
        self.assertNotIn("unexpected", out)

    @staticmethod
    def free_port():
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            return s.getsockname()[1]

    def certificate(self, name, key, extensions):
        out = self.path(name + ".pem")
        args = ["openssl", "req", "-x509", "-key", key, "-days", "30", "-subj", "/CN=" + name, "-out", out]
        for extension in extensions:
            args += ["-addext", extension]
        subprocess.run(args, check=True, capture_output=True)
        return out

    def exit_status_rows(self):
        rsa, ec = self.path("rsa.key"), self.path("ec.key")
        for key, options in ((rsa, ["RSA", "-pkeyopt", "rsa_keygen_bits:2048"]), (ec, ["EC", "-pkeyopt", "ec_paramgen_curve:P-256"])):
            subprocess.run(["openssl", "genpkey", "-algorithm", *options, "-out", key], check=True, capture_output=True)
        sim, port = start_sim([SIM, "--port", "0", "--address-space", "custom", "--user", "operator:secret", "--cert-days", "20"])
        self.sims.append(sim)
        sign = lambda certificate, key: [
            "--set", PORT + port, "--set", SECURITY + "security_mode=sign", "--set", SECURITY + "security_policy=Basic256Sha256",
            "--set", SECURITY + "client_certificate=@" + certificate, "--set", SECURITY + "client_key=@" + key]
        signed = sign(self.certificate("complete", rsa, [USAGES, URI]), rsa)
        password = ["--set", AUTH + "user_auth_mode=username_password", "--set", AUTH + "user=operator",
                    "--set", AUTH + "password=guess"]
        lacks = "client_certificate=@{}: the certificate lacks what OPC UA needs: "
        # title, arguments, status, text in standard output or error
        rows = [
            ("a check that passes", ["check", "connection_check", *signed], OK, "check 1: passed"),
            ("values scaled, every one ok", ["sensor", "custom_sensor", *signed, "--set", CHANNEL + "nodeid=ns=2;s=Double",
                                             "--set", CHANNEL + "unit=bar", "--set", CHANNEL + "scale_factor=0.1"],
             OK, "0.325 bar  ok"),
            ("a value inside the channel's warning limit", ["sensor", "certificate_sensor", *signed], WARNING,
             "20 day(s)  warning"),
            ("credentials that are not used", ["check", "connection_check", *signed, "--set", AUTH + "user=operator",
                                               "--set", AUTH + "password=secret"], WARNING, "set but not used"),
            ("a failed check with the module's reason", ["check", "connection_check", *signed, *password], ERROR,
             "check 1: failed: The sensor could not connect to the OPC UA server (BadUserAccessDenied)."),
            ("every scan answers response code 3", ["sensor", "custom_sensor", *signed, "--set",
                                                    CHANNEL + "nodeid=ns=2;s=StringText", "--scans", "2"],
             ERROR, "response code 3 (error)"),
            ("a creation that fails, tried again by a watch until it is stopped",
             ["watch", "custom_sensor", "--set", PORT + "1", "--set", CHANNEL + "nodeid=ns=2;s=Double"], ERROR,
             "creation failed: The sensor could not connect to the OPC UA server (BadConnectionRejected). "
             "Trying again in 1 s"),
            ("a setting refused, so the check never reaches the module",
             ["--json", "check", "connection_check", "--set", PORT + "70000"], USAGE,
             PORT + "\"70000\": Port must be at most 65535"),
            ("an unknown option", ["check", "connection_check", "--sett", "x=1"], USAGE, "unknown argument --sett"),
            ("a module that cannot be loaded", ["--module", "/nonexistent/libOPCUA.so", "info"], USAGE,
             "cannot load module"),
            ("an unknown name, with the known ones", ["info", "temperature_sensor"], USAGE, "custom_sensor"),
            ("a certificate file that cannot be read", ["check", "connection_check", *sign(self.path("none"), rsa)],
             USAGE, "client_certificate=@{0}: cannot read {0}".format(self.path("none"))),
        ]
        # Certificates that `openssl req` makes, each lacking parts: miniprobe names all of them.
        for name, key, extensions, missing in [
                ("no-key-usage", rsa, [URI], LACKS_USAGE),
                ("no-data-encipherment", rsa, ["keyUsage=digitalSignature,keyEncipherment", URI],
                 "data encipherment in its key usage"),
                ("no-uri", rsa, [USAGES, "subjectAltName=DNS:localhost"], LACKS_URI),
                ("ec-key", ec, ["keyUsage=digitalSignature,keyAgreement,dataEncipherment", URI], LACKS_RSA),
                ("openssl-defaults", ec, [], "; ".join([LACKS_USAGE, LACKS_URI, LACKS_RSA]))]:
            certificate = self.certificate(name, key, extensions)
            rows.append((name, ["check", "connection_check", *sign(certificate, key)], USAGE,
                         lacks.format(certificate) + missing))
        for title, args, status, text in rows:
            with self.subTest(title):
                argv = [MINIPROBE, *args]
                code, out = watch(argv, lambda out: out.count(text) >= 2) if args[0] == "watch" else run(argv)
                self.assertEqual(code, status, out)
                self.assertIn(text, out)
                self.assertNotIn('"function":"ExecuteCheck"', out if status == USAGE else "")

    def info_settings(self):
        """Each setting that `miniprobe info NAME` shows, in the order of the definition, with
        what the definition gives it, and a few as a user relies on them."""
        with open(DEFINITION, encoding="utf-8") as f:
            definition = json.load(f)
        relied_on = {
            PORT[:-1]: {"type": "IntegerSigned", "default": "4840", "display": "Port", "required": True,
                        "limits": {"IsMinimumSet": True, "Minimum": 1, "IsMaximumSet": True, "Maximum": 65535}},
            AUTH + "password": {"type": "Text", "secret": True, "depends_on": AUTH + "user_auth_mode",
                                "condition": "username_password"},
            "custom.connection_custom.channel2_nodeid": {"required": True, "depends_on": "custom.connection_custom.channel2"},
            "custom.connection_custom.channel10_scale_factor": {"type": "Floatingpoint", "default": "1", "secret": False},
        }
        seen = set()
        for name, entry in [*definition["Sensors"].items(), *definition["Checks"].items()]:
            with self.subTest(name=name):
                code, out = run([MINIPROBE, "--json", "info", name])
                shown = {s["key"]: s for s in map(json.loads, out.splitlines()) if s["event"] == "setting"}
                expected = {}
                for section in (entry["Settings"] if "Settings" in entry else entry)["Sections"]:
                    for group in definition["Sections"][section]["Groups"]:
                        for item in definition["Groups"][group]["Items"]:
                            expected[f"{section}.{group}.{item['Setting']['Name']}"] = item
                self.assertEqual(list(shown), list(expected))
                for key, item in expected.items():
                    s, setting = shown[key], item["Setting"]
                    self.assertEqual((s["display"], s["default"], s.get("condition")),
                                     (setting["Display"], setting["Default"], item.get("Condition")), key)
                    options = setting[s["type"]].get("Options", [])
                    self.assertEqual(s.get("options", []), [{"value": o["Value"], "display": o["Display"]} for o in options])
                for key in relied_on.keys() & shown.keys():
                    self.assertEqual({f: shown[key].get(f) for f in relied_on[key]}, relied_on[key], key)
                    seen.add(key)
                # The human format names every key at the start of a line, for --set.
                keys = {line.split()[0] for line in run([MINIPROBE, "info", name])[1].splitlines() if line.strip()}
                self.assertLessEqual(set(expected), keys)
        self.assertEqual(seen, set(relied_on))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

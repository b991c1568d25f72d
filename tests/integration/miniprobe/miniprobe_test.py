#!/usr/bin/env python3
"""miniprobe as a person uses it: the README's commands as written (free ports for its ports, /tmp/ in a
directory of its own), the demo beside them, the exit status table, @FILE certificates, `info` by the definition.
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
MINIPROBE = os.path.join(BIN, "miniprobe")
SCAN_LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  sensor \d+: response code (\d+) ", re.M)
VALUE_LINE = re.compile(r"^  (#\d+ .*?)  +(\S.*)$")
PORT, AUTH, SECURITY = "credentials.connection_opcua.port=", "credentials.user_authentication.", "credentials.connection_security."
CHANNEL = "custom.connection_custom.channel1_"
USAGES, URI = "keyUsage=digitalSignature,nonRepudiation,keyEncipherment,dataEncipherment", "subjectAltName=URI:urn:miniprobe:test"
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
                argv, pending = shlex.split(pending, comments=True), ""
                if argv:
                    commands.append(argv)
    return commands


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
    def path(self, name):
        return os.path.join(self.temp.name, name)

    def localised(self, argv):
        args = [arg.replace("/tmp/", self.temp.name + "/") for arg in argv[1:]]
        for readme_port, port in self.ports.items():
            args = [re.sub(rf"(?<!\d){readme_port}(?!\d)", str(port), arg) for arg in args]
        return [argv[0] if argv[0] == "openssl" else os.path.join(BIN, os.path.basename(argv[0])), *args]

    def start_sim(self, argv):
        """opcua-sim's port, once it prints the URL it listens on."""
        sim = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(sim.communicate, timeout=30)
        self.addCleanup(sim.terminate)
        url = sim.stdout.readline().strip()
        self.assertRegex(url, r"^opc\.tcp://127\.0\.0\.1:\d+/$")
        port = url.rsplit(":", 1)[1].strip("/")
        with socket.socket() as other:  # another loopback address may take the port: it listens on 127.0.0.1 alone
            other.bind(("127.0.0.2", int(port)))
        return port

    def check_output(self, argv, out):
        """Every scan answers response code 0, and the values of a scan stand in one column."""
        if "--json" in argv:
            for event in map(json.loads, out.splitlines()):
                if event.get("type") == "SENSOR_SCAN_RESULT":
                    self.assertEqual(event["message"]["response_code"], 0, event)
            return
        self.assertLessEqual(set(SCAN_LINE.findall(out)), {"0"}, out)
        columns = set()
        for line in out.splitlines() + [""]:
            value = VALUE_LINE.match(line)
            if value:
                columns.add(value.start(2))
            elif columns:
                self.assertEqual(len(columns), 1, "values of one scan not aligned:\n" + out)
                columns = set()

    def test_as_a_person_uses_it(self):
        self.temp, self.ports, commands = tempfile.TemporaryDirectory(), {}, readme_commands()
        self.addCleanup(self.temp.cleanup)
        self.assertEqual({os.path.basename(argv[0]) for argv in commands}, {"miniprobe", "opcua-sim", "openssl"})
        self.assertIn(["build/bin/miniprobe", "watch", "server_status_sensor", "--set", PORT + "4840"], commands)
        self.assertIn(["build/bin/miniprobe", "demo"], commands)
        demo = subprocess.Popen(self.localised(["build/bin/miniprobe", "demo"]), stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
        for argv in commands:
            with self.subTest(command=shlex.join(argv)):
                self.assertTrue(argv[0].startswith("build/bin/") or argv[0] == "openssl", "runs from the repository root")
                if argv[0].endswith("opcua-sim"):
                    with socket.socket() as s:
                        s.bind(("127.0.0.1", 0))
                        self.ports[argv[argv.index("--port") + 1]] = s.getsockname()[1]
                    self.start_sim(self.localised(argv))
                elif argv[1:] != ["demo"]:
                    two_scans = lambda out: len(SCAN_LINE.findall(out)) >= 2
                    code, out = watch(self.localised(argv), two_scans) if "watch" in argv else run(self.localised(argv))
                    self.assertEqual(code, 0, out)
                    self.check_output(argv, out)
        self.exit_status_rows()
        self.info_settings()
        out = demo.communicate(timeout=300)[0]
        self.assertEqual(demo.returncode, 0, out)
        self.assertIn("Every step ended as expected.", out)
        self.assertNotIn("unexpected", out)

    def certificate(self, name, key, extensions):
        extensions = [arg for extension in extensions for arg in ("-addext", extension)]
        subprocess.run(["openssl", "req", "-x509", "-key", key, "-days", "30", "-subj", "/CN=" + name,
                        "-out", self.path(name + ".pem"), *extensions], check=True, capture_output=True)
        return self.path(name + ".pem")

    def exit_status_rows(self):
        """Each status with the line that tells why, against a simulator whose certificate ends within the warning
        limit, signed with a certificate from files: in mode none every miniprobe would make a 4096-bit key."""
        rsa, ec = self.path("rsa.key"), self.path("ec.key")
        for key, algorithm in ((rsa, ["RSA", "-pkeyopt", "rsa_keygen_bits:2048"]), (ec, ["EC", "-pkeyopt", "ec_paramgen_curve:P-256"])):
            subprocess.run(["openssl", "genpkey", "-algorithm", *algorithm, "-out", key], check=True, capture_output=True)
        port = self.start_sim([os.path.join(BIN, "opcua-sim"), "--port", "0", "--address-space", "custom",
                               "--user", "operator:secret", "--cert-days", "20"])
        sign = lambda certificate, key: [
            "--set", PORT + port, "--set", SECURITY + "security_mode=sign", "--set", SECURITY + "security_policy=Basic256Sha256",
            "--set", SECURITY + "client_certificate=@" + certificate, "--set", SECURITY + "client_key=@" + key]
        signed = sign(self.certificate("complete", rsa, [USAGES, URI]), rsa)
        user = lambda password: ["--set", AUTH + "user=operator", "--set", AUTH + "password=" + password]
        node = lambda node_id: ["--set", CHANNEL + "nodeid=" + node_id]
        rows = [  # arguments, status, text in standard output or error
            (["check", "connection_check", *signed], 0, "check 1: passed"),
            (["sensor", "custom_sensor", *signed, *node("ns=2;s=Double"), "--set", CHANNEL + "unit=bar", "--set",
              CHANNEL + "scale_factor=0.1"], 0, "0.325 bar  ok"),
            (["sensor", "certificate_sensor", *signed], 1, "20 day(s)  warning"),
            (["check", "connection_check", *signed, *user("secret")], 1, "set but not used"),
            (["check", "connection_check", *signed, "--set", AUTH + "user_auth_mode=username_password", *user("guess")], 2,
             "check 1: failed: The sensor could not connect to the OPC UA server (BadUserAccessDenied)."),
            (["sensor", "custom_sensor", *signed, *node("ns=2;s=StringText"), "--scans", "2"], 2, "response code 3 (error)"),
            # A watch tries a failed creation again until it is stopped.
            (["watch", "custom_sensor", "--set", PORT + "1", *node("ns=2;s=Double")], 2, "creation failed: The sensor "
             "could not connect to the OPC UA server (BadConnectionRejected). Trying again in 1 s"),
            # A setting refused never reaches the module.
            (["--json", "check", "connection_check", "--set", PORT + "70000"], 3, PORT + "\"70000\": Port must be at most 65535"),
            (["check", "connection_check", "--sett", "x=1"], 3, "unknown argument --sett"),
            (["--module", "/nonexistent/libOPCUA.so", "info"], 3, "cannot load module"),
            (["info", "temperature_sensor"], 3, "it has: beckhoff_ipc_system_status_sensor certificate_sensor custom_sensor"),
            (["check", "connection_check", *sign(self.path("none"), rsa)], 3, "=@{0}: cannot read {0}".format(self.path("none"))),
        ]
        # Certificates that `openssl req` makes, lacking parts: miniprobe names all of them.
        for name, key, extensions, missing in [
                ("no-data-encipherment", rsa, ["keyUsage=digitalSignature,keyEncipherment", URI],
                 "data encipherment in its key usage"),
                ("openssl-defaults", ec, [], "; ".join([LACKS_USAGE, LACKS_URI, LACKS_RSA]))]:
            certificate = self.certificate(name, key, extensions)
            rows.append((["check", "connection_check", *sign(certificate, key)], 3,
                         f"=@{certificate}: the certificate lacks what OPC UA needs: {missing}\n"))
        for args, status, text in rows:
            with self.subTest(shlex.join(args)):
                code, out = watch([MINIPROBE, *args], lambda out: out.count(text) >= 2) if args[0] == "watch" else run([MINIPROBE, *args])
                self.assertEqual(code, status, out)
                self.assertIn(text, out)
                self.assertNotIn('"function":"ExecuteCheck"', out if status == 3 else "")

    def info_settings(self):
        """Each setting `info NAME` shows, as and where the definition has it; a few as a user relies on them."""
        with open(DEFINITION, encoding="utf-8") as f:
            definition = json.load(f)
        relied_on = {
            PORT[:-1]: {"required": True, "limits": {"IsMinimumSet": True, "Minimum": 1, "IsMaximumSet": True, "Maximum": 65535}},
            AUTH + "password": {"type": "Text", "secret": True, "depends_on": AUTH + "user_auth_mode"},
            "custom.connection_custom.channel2_nodeid": {"required": True, "depends_on": "custom.connection_custom.channel2"},
            "custom.connection_custom.channel10_scale_factor": {"type": "Floatingpoint", "secret": False}}
        for name, entry in [*definition["Sensors"].items(), *definition["Checks"].items()]:
            with self.subTest(name=name):
                shown = {s["key"]: s for s in map(json.loads, run([MINIPROBE, "--json", "info", name])[1].splitlines())
                         if s["event"] == "setting"}
                expected = {f"{section}.{group}.{item['Setting']['Name']}": item
                            for section in entry.get("Settings", entry)["Sections"]
                            for group in definition["Sections"][section]["Groups"]
                            for item in definition["Groups"][group]["Items"]}
                self.assertEqual(list(shown), list(expected))
                for key, item in expected.items():
                    s, setting = shown[key], item["Setting"]
                    options = [{"value": o["Value"], "display": o["Display"]} for o in setting[s["type"]].get("Options", [])]
                    self.assertEqual((s["display"], s["default"], s.get("condition"), s.get("options", [])),
                                     (setting["Display"], setting["Default"], item.get("Condition"), options), key)
                for key in relied_on if name == "custom_sensor" else []:
                    self.assertEqual({f: shown[key].get(f) for f in relied_on[key]}, relied_on[key], key)
                # The human format names every key at the start of a line, for --set.
                keys = {line.split()[0] for line in run([MINIPROBE, "info", name])[1].splitlines() if line.strip()}
                self.assertLessEqual(set(expected), keys)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

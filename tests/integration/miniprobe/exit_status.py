#!/usr/bin/env python3
"""miniprobe's exit status, one row of the table in `miniprobe --help` after another,
each with the line that tells a person why. One opcua-sim serves them all; its
certificate runs out in 20 days, inside the certificate sensor's warning limit.
Usage: exit_status.py <directory of miniprobe and opcua-sim>"""
import os
import signal
import subprocess
import sys
import unittest

BIN = sys.argv[1]
MINIPROBE = os.path.join(BIN, "miniprobe")
PORT = "credentials.connection_opcua.port"
AUTH = "credentials.user_authentication."
CHANNEL = "custom.connection_custom.channel1_"

OK, WARNING, ERROR, USAGE = 0, 1, 2, 3


class ExitStatus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.sim = subprocess.Popen(
            [os.path.join(BIN, "opcua-sim"), "--port", "0", "--address-space", "custom",
             "--user", "operator:secret", "--cert-days", "20"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        url = cls.sim.stdout.readline().strip()
        assert url.startswith("opc.tcp://127.0.0.1:"), url
        cls.port = url.rsplit(":", 1)[1].strip("/")

    @classmethod
    def tearDownClass(cls):
        cls.sim.terminate()
        cls.sim.wait(timeout=30)
        cls.sim.stdout.close()

    def run_miniprobe(self, args, watch):
        """Runs miniprobe to its end; a watch is stopped with SIGINT after two failed creations."""
        argv = [MINIPROBE, *[a.replace("{port}", self.port) for a in args]]
        if not watch:
            done = subprocess.run(argv, capture_output=True, text=True, timeout=60)
            return done.returncode, done.stdout + done.stderr
        process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        out = ""
        while out.count("creation failed") < 2:
            line = process.stdout.readline()
            self.assertTrue(line, "watch ended by itself:\n" + out)
            out += line
        process.send_signal(signal.SIGINT)
        out += process.communicate(timeout=60)[0]
        return process.returncode, out

    def test_each_status_with_its_reason(self):
        at = ["--set", PORT + "={port}"]
        password = lambda p: ["--set", AUTH + "user_auth_mode=username_password", "--set", AUTH + "user=operator",
                              "--set", AUTH + "password=" + p]
        closed = ["--set", PORT + "=1", "--set", CHANNEL + "nodeid=ns=2;s=Double"]
        # title, arguments, status, text in standard output or error
        rows = [
            ("a check that passes", ["check", "connection_check", *at], OK, "check 1: passed"),
            ("values scaled, every one ok",
             ["sensor", "custom_sensor", *at, "--set", CHANNEL + "nodeid=ns=2;s=Double", "--set", CHANNEL + "unit=bar",
              "--set", CHANNEL + "scale_factor=0.1"], OK, "0.325 bar  ok"),
            ("a value inside the channel's warning limit", ["sensor", "certificate_sensor", *at], WARNING,
             "20 day(s)  warning"),
            ("credentials that are not used", ["check", "connection_check", *at, "--set", AUTH + "user=operator",
                                               "--set", AUTH + "password=secret"], WARNING, "set but not used"),
            ("a failed check with the module's reason", ["check", "connection_check", *at, *password("guess")], ERROR,
             "check 1: failed: The sensor could not connect to the OPC UA server (BadUserAccessDenied)."),
            ("every scan answers response code 3",
             ["sensor", "custom_sensor", *at, "--set", CHANNEL + "nodeid=ns=2;s=StringText", "--scans", "2"], ERROR,
             "response code 3 (error)"),
            ("a creation that fails, tried again by a watch until it is stopped", ["watch", "custom_sensor", *closed],
             ERROR, "creation failed: The sensor could not connect to the OPC UA server (BadConnectionRejected). "
                    "Trying again in 1 s"),
            ("a setting refused, so the check never reaches the module",
             ["--json", "check", "connection_check", "--set", PORT + "=70000"], USAGE,
             PORT + "=\"70000\": Port must be at most 65535"),
            ("an unknown option", ["check", "connection_check", "--sett", "x=1"], USAGE, "unknown argument --sett"),
            ("a module that cannot be loaded", ["--module", "/nonexistent/libOPCUA.so", "info"], USAGE,
             "cannot load module"),
        ]
        for title, args, status, text in rows:
            with self.subTest(title):
                returncode, out = self.run_miniprobe(args, watch=args[0] == "watch")
                self.assertEqual(returncode, status, out)
                self.assertIn(text, out)
                self.assertNotIn('"function":"ExecuteCheck"', out if status == USAGE else "")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

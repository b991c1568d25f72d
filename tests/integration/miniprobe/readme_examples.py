#!/usr/bin/env python3
"""Runs every command of the README's miniprobe and opcua-sim sections as written, with
two changes so that it can run beside other tests: each simulator's --port becomes a
free port (and so does that number in later commands), and /tmp/ paths, also inside an
argument such as KEY=@/tmp/FILE, move into a temporary directory. `openssl` is the
system's; the other programs come from the build. Simulators keep running until the end. A watch is stopped with
SIGINT after two scans. Every command must exit 0 and every scan answer response code 0.
`miniprobe demo` is left to its own test, miniprobe_demo.
Usage: readme_examples.py <directory of miniprobe and opcua-sim> <README.md>"""
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

BIN, README = sys.argv[1], sys.argv[2]
SECTIONS = ("miniprobe", "opcua-sim")
SCAN_LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  sensor \d+: response code (\d+) ")
VALUE_LINE = re.compile(r"^  (#\d+ .*?)  +(\S.*)$")


def readme_commands():
    """The commands of the sections' sh blocks, continuation lines joined, comments gone."""
    commands, section, block, pending = [], None, False, ""
    with open(README, encoding="utf-8") as f:
        for line in f:
            line = line.rstrip("\n")
            if line.startswith("## "):
                section = line[3:].strip()
            elif line.startswith("```"):
                block = line == "```sh" and section in SECTIONS
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


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class ReadmeExamples(unittest.TestCase):
    def setUp(self):
        self.temp = tempfile.TemporaryDirectory()
        self.ports = {}
        self.servers = []

    def tearDown(self):
        for server in self.servers:
            server.terminate()
            server.wait(timeout=30)
            server.stdout.close()
        self.temp.cleanup()

    def localised(self, argv):
        args = []
        for arg in argv[1:]:
            for readme_port, port in self.ports.items():
                arg = re.sub(rf"(?<!\d){readme_port}(?!\d)", str(port), arg)
            args.append(arg.replace("/tmp/", self.temp.name + "/"))
        program = argv[0] if argv[0] == "openssl" else os.path.join(BIN, os.path.basename(argv[0]))
        return [program, *args]

    def start_server(self, argv):
        at = argv.index("--port")
        self.ports[argv[at + 1]] = free_port()
        server = subprocess.Popen(self.localised(argv), stdout=subprocess.PIPE, text=True)
        self.servers.append(server)
        self.assertTrue(server.stdout.readline().startswith("opc.tcp://"), "the simulator did not start")

    def check_output(self, argv, out):
        if "--json" in argv:
            for line in out.splitlines():
                event = json.loads(line)
                if event.get("type") == "SENSOR_SCAN_RESULT":
                    self.assertEqual(event["message"]["response_code"], 0, line)
            return
        columns = set()
        for line in out.splitlines() + [""]:
            scan = SCAN_LINE.match(line)
            value = VALUE_LINE.match(line)
            if scan:
                self.assertEqual(scan.group(1), "0", line)
            if value:
                columns.add(value.start(2))
            elif columns:
                self.assertEqual(len(columns), 1, "values of one scan not aligned:\n" + out)
                columns = set()

    def watch(self, argv):
        process = subprocess.Popen(self.localised(argv), stdout=subprocess.PIPE, text=True)
        out, scans = "", 0
        while scans < 2:
            line = process.stdout.readline()
            self.assertTrue(line, "the watch ended by itself:\n" + out)
            out += line
            scans += bool(SCAN_LINE.match(line))
        process.send_signal(signal.SIGINT)
        out += process.stdout.read()
        process.stdout.close()
        self.assertEqual(process.wait(timeout=60), 0, out)
        return out

    def test_every_example_runs_as_written(self):
        commands = readme_commands()
        programs = {os.path.basename(argv[0]) for argv in commands}
        self.assertEqual(programs, {"miniprobe", "opcua-sim", "openssl"})
        self.assertIn(["build/bin/miniprobe", "watch", "server_status_sensor",
                       "--set", "credentials.connection_opcua.port=4840"], commands)
        for argv in commands:
            with self.subTest(command=shlex.join(argv)):
                self.assertTrue(argv[0].startswith("build/bin/") or argv[0] == "openssl", "runs from the repository root")
                if argv[0].endswith("opcua-sim"):
                    self.start_server(argv)
                elif argv[1:] == ["demo"]:
                    continue
                elif "watch" in argv:
                    self.check_output(argv, self.watch(argv))
                else:
                    done = subprocess.run(self.localised(argv), capture_output=True, text=True, timeout=120)
                    self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
                    self.check_output(argv, done.stdout)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

#!/usr/bin/env python3
"""--set KEY=@FILE with client certificates made by `openssl req`, one lacking each part
that OPC UA needs: miniprobe names every missing part before the module is called, and a
certificate that lacks nothing passes a signed check against opcua-sim.
Usage: certificate_files.py <directory of miniprobe and opcua-sim>"""
import os
import subprocess
import sys
import tempfile
import unittest

BIN = sys.argv[1]
SECURITY = "credentials.connection_security."
USAGE = 3
USAGES = "digitalSignature,nonRepudiation,keyEncipherment,dataEncipherment"
URI = "subjectAltName=URI:urn:miniprobe:test"
LACKS_USAGE = "a key usage extension with data encipherment"
LACKS_ENCIPHERMENT = "data encipherment in its key usage"
LACKS_URI = "a URI in its subject alternative names"
LACKS_RSA = "an RSA key (it has an EC key)"


class CertificateFiles(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.temp = tempfile.TemporaryDirectory()
        cls.rsa = cls.path("rsa.key")
        cls.ec = cls.path("ec.key")
        subprocess.run(["openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", cls.rsa],
                       check=True, capture_output=True)
        subprocess.run(["openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", cls.ec],
                       check=True, capture_output=True)
        cls.sim = subprocess.Popen([os.path.join(BIN, "opcua-sim"), "--port", "0"], stdout=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL, text=True)
        url = cls.sim.stdout.readline().strip()
        assert url.startswith("opc.tcp://127.0.0.1:"), url
        cls.port = url.rsplit(":", 1)[1].strip("/")

    @classmethod
    def tearDownClass(cls):
        cls.sim.terminate()
        cls.sim.wait(timeout=30)
        cls.sim.stdout.close()
        cls.temp.cleanup()

    @classmethod
    def path(cls, name):
        return os.path.join(cls.temp.name, name)

    def certificate(self, name, key, extensions):
        out = self.path(name + ".pem")
        args = ["openssl", "req", "-x509", "-key", key, "-days", "30", "-subj", "/CN=" + name, "-out", out]
        for extension in extensions:
            args += ["-addext", extension]
        subprocess.run(args, check=True, capture_output=True)
        return out

    def signed_check(self, certificate, key):
        return subprocess.run(
            [os.path.join(BIN, "miniprobe"), "check", "connection_check",
             "--set", "credentials.connection_opcua.port=" + self.port,
             "--set", SECURITY + "security_mode=sign", "--set", SECURITY + "security_policy=Basic256Sha256",
             "--set", SECURITY + "client_certificate=@" + certificate, "--set", SECURITY + "client_key=@" + key],
            capture_output=True, text=True, timeout=60)

    def test_each_missing_part_is_named(self):
        # name, key, extensions, what miniprobe names as missing (empty: the check passes)
        rows = [
            ("complete", self.rsa, ["keyUsage=" + USAGES, URI], []),
            ("no-key-usage", self.rsa, [URI], [LACKS_USAGE]),
            ("no-data-encipherment", self.rsa, ["keyUsage=digitalSignature,keyEncipherment", URI],
             [LACKS_ENCIPHERMENT]),
            ("no-uri", self.rsa, ["keyUsage=" + USAGES, "subjectAltName=DNS:localhost"], [LACKS_URI]),
            ("ec-key", self.ec, ["keyUsage=digitalSignature,keyAgreement,dataEncipherment", URI], [LACKS_RSA]),
            ("openssl-defaults", self.ec, [], [LACKS_USAGE, LACKS_URI, LACKS_RSA]),
            ("missing-file", self.rsa, None, ["cannot read"]),
        ]
        for name, key, extensions, lacks in rows:
            with self.subTest(name):
                certificate = self.certificate(name, key, extensions) if extensions is not None else self.path(name)
                done = self.signed_check(certificate, key)
                if not lacks:
                    self.assertEqual((done.returncode, done.stdout), (0, "check 1: passed\n"), done.stderr)
                    continue
                self.assertEqual(done.returncode, USAGE, done.stdout + done.stderr)
                refused = [line for line in done.stderr.splitlines() if "client_certificate=@" + certificate in line]
                self.assertEqual(len(refused), 1, done.stderr)
                if extensions is None:
                    self.assertIn(": cannot read " + certificate, refused[0])
                    continue
                named = refused[0].split("the certificate lacks what OPC UA needs: ", 1)[1].split("; ")
                self.assertEqual([part for part in named if not any(part.startswith(l) for l in lacks)], [], named)
                self.assertEqual(len(named), len(lacks), named)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

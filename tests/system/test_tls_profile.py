#!/usr/bin/env python3
"""What TLS with the defaults offers to clients, as a scanner sees it: Mozilla's intermediate profile, nothing beyond.

The profile: TLS 1.2 and 1.3; with 1.2 the exchange of keys by ECDHE (or DHE) and the AEAD ciphers AES-GCM and
CHACHA20-POLY1305, of which the client chooses; the curves X25519, P-256 and P-384; keys of certificates EC P-256 or RSA
2048, signed with SHA-256.
"""

import re
import socket
import struct
import subprocess
import threading
from xml.etree import ElementTree

from trabex_system import LOOPBACK, Authority, Connection, Scenario, bound, endpoint, free_port, main

NAME = "mx.test.example"
VERSIONS = {"TLSv1.2", "TLSv1.3"}
CIPHERS = {
    "TLSv1.3": {"TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384", "TLS_CHACHA20_POLY1305_SHA256"},
    "TLSv1.2": {"ECDHE-ECDSA-AES128-GCM-SHA256", "ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-ECDSA-AES256-GCM-SHA384",
                "ECDHE-RSA-AES256-GCM-SHA384", "ECDHE-ECDSA-CHACHA20-POLY1305", "ECDHE-RSA-CHACHA20-POLY1305"},
}
# The profile has them as well; we have none, so nobody can make us compute in big groups.
DHE_CIPHERS = {"DHE-RSA-AES128-GCM-SHA256", "DHE-RSA-AES256-GCM-SHA384", "DHE-RSA-CHACHA20-POLY1305"}
CURVES = {"x25519", "secp256r1 (NIST P-256)", "secp384r1 (NIST P-384)"}


class Offer:
    """What sslscan has found."""

    def __init__(self, found):
        self.versions = {"SSLv" + each.get("version") if each.get("type") == "ssl" else "TLSv" + each.get("version")
                         for each in found.findall("protocol") if each.get("enabled") == "1"}
        self.ciphers = {version: {each.get("cipher") for each in found.findall("cipher")
                                  if each.get("sslversion") == version} for version in self.versions}
        self.strengths = {each.get("strength") for each in found.findall("cipher")}
        self.curves = {version: {each.get("name") for each in found.findall("group")
                                 if each.get("sslversion") == version} for version in self.versions}
        self.renegotiation = {each.get("supported") for each in found.findall("renegotiation")}
        self.heartbleed = {each.get("sslversion"): each.get("vulnerable") for each in found.findall("heartbleed")}
        certificate, = found.findall("certificates/certificate[@type='short']")
        self.signature = certificate.findtext("signature-algorithm")
        key = certificate.find("pk")
        self.key = key.get("type"), key.get("curve_name") or key.get("bits")

    def beyond_the_profile(self):
        """The names of what the profile does not have."""
        beyond = {version for version in self.versions - VERSIONS}
        for version, ciphers in self.ciphers.items():
            beyond |= ciphers - CIPHERS.get(version, set()) - (DHE_CIPHERS if version == "TLSv1.2" else set())
        return beyond.union(*self.curves.values()) - CURVES


class Profile(Scenario):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.place)

    def start(self, kinds=("ec", "rsa"), **tls):
        certificates = [self.authority.issue([NAME], kind=kind) for kind in kinds]
        self.tls_port = free_port()
        self.proxy = self.trabex(
            self.sample_server().port, {"BindPortTLS": self.tls_port},
            sections={"TLS": {"Certificate": [f"{each.chain} {each.key}" for each in certificates], **tls}})

    def scan(self, starttls=False):
        where = ["--starttls-smtp", endpoint(self.proxy.port)] if starttls else [endpoint(self.tls_port)]
        done = subprocess.run(["sslscan", "--no-colour", "--xml=-", f"--sni-name={NAME}", *where],
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=bound(120), check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return Offer(ElementTree.fromstring(done.stdout).find("ssltest"))

    def openssl(self, *options, text=""):
        """What s_client says; it lives until the server closes, or it has to."""
        done = subprocess.run(["openssl", "s_client", "-servername", NAME, *map(str, options)], input=text,
                              capture_output=True, text=True, errors="replace", timeout=bound(60), check=False)
        return done.stdout + done.stderr

    def where(self, starttls):
        return (["-connect", endpoint(self.proxy.port), "-starttls", "smtp"] if starttls
                else ["-connect", endpoint(self.tls_port)])

    def assertIntermediate(self, offer):
        self.assertEqual(offer.beyond_the_profile(), set())
        self.assertEqual(offer.versions, VERSIONS)
        self.assertEqual(offer.ciphers, CIPHERS)
        self.assertEqual(offer.strengths, {"strong", "acceptable"})
        self.assertEqual(offer.curves, {version: CURVES for version in VERSIONS})
        self.assertEqual(offer.renegotiation, {"0"})
        self.assertEqual(offer.heartbleed, {version: "0" for version in VERSIONS})
        self.assertEqual((offer.key, offer.signature), (("EC", "prime256v1"), "ecdsa-with-SHA256"))

    # --- the cases

    def test_the_tls_port(self):
        self.start()
        self.assertIntermediate(self.scan())

    def test_starttls(self):
        self.start()
        self.assertIntermediate(self.scan(starttls=True))

    def test_the_scan_would_find_more(self):
        """Settings that allow more show that the scan sees it."""
        self.start(kinds=("rsa",), MinVersion="1.0", Ciphers="ALL:@SECLEVEL=0")
        offer = self.scan()
        self.assertEqual(offer.versions, {"TLSv1.0", "TLSv1.1", *VERSIONS})
        self.assertLessEqual({"TLSv1.0", "TLSv1.1", "AES128-SHA", "ECDHE-RSA-AES256-SHA"}, offer.beyond_the_profile())
        self.assertEqual(offer.key, ("RSA", "2048"))

    def test_the_chain_is_sent_whole(self):
        """With either kind of key the certificate comes with the one that has signed it, and the authority suffices."""
        self.start()
        for starttls in (False, True):
            for cipher, kind in (("ECDHE-ECDSA-AES128-GCM-SHA256", "ECDSA"), ("ECDHE-RSA-AES128-GCM-SHA256", "RSA")):
                said = self.openssl(*self.where(starttls), "-tls1_2", "-cipher", cipher, "-CAfile", self.authority.file,
                                    "-showcerts", "-verify_return_error", "-verify_hostname", NAME)
                self.assertIn("Verify return code: 0 (ok)", said)
                self.assertEqual(re.findall(r"^ \d s:(.*)", said, re.MULTILINE),
                                 [f"CN = {NAME}", "CN = intermediate authority of a test"], kind)

    def test_the_client_chooses_the_cipher(self):
        self.start()
        two = ["ECDHE-ECDSA-AES128-GCM-SHA256", "ECDHE-ECDSA-CHACHA20-POLY1305"]
        for first, second in (two, two[::-1]):
            said = self.openssl(*self.where(False), "-tls1_2", "-cipher", f"{first}:{second}")
            self.assertIn(f"Cipher is {first}\n", said)

    def test_no_renegotiation_by_the_client(self):
        self.start()
        for starttls in (False, True):
            command = ["openssl", "s_client", "-tls1_2", "-servername", NAME, *self.where(starttls)]
            with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT) as client:
                too_late = threading.Timer(bound(30), client.kill)
                too_late.start()
                self.addCleanup(too_late.cancel)
                # A greeting that came in between would confuse it.
                said = b""
                while not starttls and b"\n220 " not in said:
                    said += client.stdout.read1() or self.fail(said)
                client.stdin.write(b"R\n")
                client.stdin.flush()
                # It ends by itself when that is refused.
                said = (said + client.stdout.read()).decode(errors="replace")
            self.assertIn("RENEGOTIATING", said)
            self.assertIn("no renegotiation", said)

    def test_no_compression_and_no_heartbeat(self):
        """sslscan cannot compress, so a hello is made by hand that would like both."""
        self.start()
        client = Connection(socket.create_connection((LOOPBACK, self.tls_port), bound(30)))
        self.addCleanup(client.close)
        client.send(hello_with_compression_and_heartbeat())
        kind, _, length = struct.unpack(">BHH", client.read_bytes(5))
        self.assertEqual(kind, 22, "no handshake message")
        cipher, compression, extensions = read_server_hello(client.read_bytes(length))
        self.assertEqual((cipher, compression), (0xC02B, 0))
        # Of those offered only these are answered: the forms of points, and that renegotiation would be safe.
        self.assertEqual(extensions, {11, 0xFF01})


def hello_with_compression_and_heartbeat():
    """A record with the client hello of TLS 1.2."""
    def extension(kind, data):
        return struct.pack(">HH", kind, len(data)) + data

    extensions = b"".join((
        extension(10, struct.pack(">HHH", 4, 29, 23)),       # X25519 and P-256
        extension(11, b"\x01\x00"),                          # points as they are
        extension(13, struct.pack(">HHH", 4, 0x0403, 0x0804)),
        extension(15, b"\x01")))                             # the peer may send heartbeats
    hello = (b"\x03\x03" + bytes(range(32)) + b"\x00" + struct.pack(">HHHH", 6, 0xC02B, 0xC02F, 0x00FF) +
             b"\x02\x01\x00" +                               # DEFLATE, or none
             struct.pack(">H", len(extensions)) + extensions)
    handshake = b"\x01" + len(hello).to_bytes(3, "big") + hello
    return b"\x16\x03\x01" + struct.pack(">H", len(handshake)) + handshake


def read_server_hello(message):
    """The cipher, the method of compression and the kinds of extensions that a server hello holds."""
    if message[0] != 2:
        raise AssertionError(f"no server hello: {message[:50]!r}")
    at = 4 + 2 + 32
    at += 1 + message[at]
    cipher, compression, length = struct.unpack_from(">HBH", message, at)
    at += 5
    end = at + length
    kinds = set()
    while at < end:
        kind, length = struct.unpack_from(">HH", message, at)
        kinds.add(kind)
        at += 4 + length
    return cipher, compression, kinds


if __name__ == "__main__":
    main()

"""The addresses of loopback that the scenarios use: those of 127.0.0.0/8, or with --ipv6 ::1 and others of IPv6.

IPv6 has one address of loopback only, and the stories have clients with several. So with --ipv6 a scenario runs in a
network of its own, whose loopback has as many as it needs, and with a hosts file of its own, since not every machine's
has ::1. It takes root to make them.
"""

import functools
import ipaddress
import os
import re
import socket
import subprocess
import sys
import tempfile
import unittest

# Set for whoever runs in a network of its own.
_VARIABLE = "TRABEX_TESTS_IN_IPV6"
IPV6 = _VARIABLE in os.environ

_IPV4_ADDRESS = re.compile(r"127\.(\d+)\.(\d+)\.(\d+)(?:/(\d+))?")


def enter_own_network():
    """Starts this program anew in a network of its own, with IPv6; returns only when there is none to be had."""
    own = ["unshare", "--net", "--mount"]
    if os.geteuid() == 0 and subprocess.run([*own, "true"], capture_output=True, check=False).returncode == 0:
        os.execvpe("unshare", [*own, sys.executable, *sys.argv], {**os.environ, _VARIABLE: "1"})


@functools.cache
def _set_up_network():
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with tempfile.NamedTemporaryFile("w", prefix="trabex-hosts-") as hosts:
        hosts.write("127.0.0.1 localhost\n::1 localhost ip6-localhost\n")
        hosts.flush()
        os.chmod(hosts.name, 0o644)
        subprocess.run(["mount", "--bind", hosts.name, "/etc/hosts"], check=True)


@functools.cache
def _have_address(text):
    _set_up_network()
    if text != "::1":
        # Usable at once: nobody else in this network could have it.
        subprocess.run(["ip", "address", "replace", f"{text}/128", "dev", "lo", "nodad"], check=True)


def _on_ipv6(found):
    *numbers, bits = found.groups()
    if bits == "8":
        return "::1, fd7f::/32"
    if [int(number) for number in numbers] == [0, 0, 1]:
        address = "::1"
    else:
        address = str(ipaddress.ip_address(f"fd7f:0:{numbers[0]}:{numbers[1]}::{numbers[2]}"))
    if bits:
        # A number of the one is a group of the other; the last one stands for four of them.
        return f"{address}/{ {'16': 48, '24': 64, '32': 128}[bits] }"
    _have_address(address)
    return address


def in_family(text):
    """`text` with each address of 127.0.0.0/8, each range and each network of such addresses as they are in this run.

    On IPv6 each of them is another one, in the same order; networks of /24 are those of /64. Each single address is one
    of this machine's.
    """
    return _IPV4_ADDRESS.sub(_on_ipv6, text) if IPV6 else text


LOOPBACK = in_family("127.0.0.1")
FAMILY = socket.AF_INET6 if IPV6 else socket.AF_INET


def bracketed(address=LOOPBACK):
    """As it stands where a port may follow."""
    return f"[{address}]" if ":" in address else address


def endpoint(port, address=LOOPBACK):
    """Address and port in one: 127.0.0.1:25 or [::1]:25."""
    return f"{bracketed(address)}:{port}"


def only_ipv4(reason):
    """For cases and classes that are not played on IPv6."""
    return unittest.skipIf(IPV6, reason)

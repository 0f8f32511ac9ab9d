#!/usr/bin/env python3
"""Several addresses to listen on, IPv6 on either side, and what a reload does to who waits to be accepted."""

import os
import signal
import socket
import subprocess
import sys
import time

from messages import text_message
from trabex_system import (LOOPBACK, Scenario, Smtp, bound, free_port, is_listening, main, only_ipv4, program,
                           run_trabex)

IPV6_LOOPBACK = "::1"
RELOADED = "Configuration reloaded because date/time of initialization file changed."

# Run in a network of its own, where all addresses are nobody else's: brings its loopback up, listens on `before` and,
# after a reload, on `after`, and prints the greetings that a client hears on each of the addresses at either time.
IN_OWN_NETWORK = r"""
import fcntl, signal, socket, struct, subprocess, sys, time
trabex, ini, port, before, after, *addresses = sys.argv[1:]
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
    fcntl.ioctl(any_socket, 0x8914, struct.pack("16sH14x", b"lo", 0x1 | 0x40))  # SIOCSIFFLAGS: up and running
def write(addresses):
    with open(ini, "w") as file:
        file.write(f"[Common]\nBindIP={addresses}\nBindPort={port}\nServerPort=1\nLog=0\n")
def greeting(address):
    try:
        with socket.create_connection((address, int(port)), 20) as client:
            return client.makefile("rb").readline()[:3].decode()
    except ConnectionRefusedError:
        return "refused"
    except ConnectionResetError:
        return "reset"  # it waited at a listener that was closed
def show(listening):
    # The last address to be listened on is the sign that all are.
    end = time.monotonic() + 20
    while greeting(listening) == "refused" and time.monotonic() < end:
        time.sleep(0.01)
    print(*(greeting(address) for address in addresses))
write(before)
# The tests themselves may run under nohup.
signal.signal(signal.SIGHUP, signal.SIG_DFL)
child = subprocess.Popen([trabex, "/I", ini, "/HI"])
try:
    show("::1")
    write(after)
    child.send_signal(signal.SIGHUP)
    end = time.monotonic() + 20
    while greeting(addresses[-1]) != "refused" and time.monotonic() < end:
        time.sleep(0.01)
    show("::1")
finally:
    child.terminate()
    print(child.wait(20))
"""


@only_ipv4("clients and servers of both families are in it")
class Greeted(Scenario):
    def greeted(self, address, port, source=None):
        client = self.connect((address, port), source=source)
        self.assertEqual(client.read_reply()[:3], "220", address)
        return client

    def assertNobodyListens(self, address, port):
        with self.assertRaises(ConnectionRefusedError, msg=address):
            self.connect((address, port))


class Addresses(Greeted):
    def test_mail_comes_in_on_each(self):
        server = self.sample_server()
        addresses = (LOOPBACK, IPV6_LOOPBACK, "127.0.0.2")
        proxy = self.trabex(server.port, {"BindIP": ", ".join(addresses)})
        self.assertIn(f"Listen on: {LOOPBACK}:{proxy.port}, [::1]:{proxy.port}, 127.0.0.2:{proxy.port}; Connect to: "
                      f"{LOOPBACK}:{server.port}.", proxy.log_lines())
        for number, address in enumerate(addresses, 1):
            with Smtp((address, proxy.port)) as client:
                client.sendmail("s@test.example", ["r@test.example"], text_message(100))
            messages = server.wait_for_messages(number)
        received = [message.content.split(b"\r\n")[0] for message in messages]
        # From 127.0.0.1 to both addresses of IPv4.
        self.assertEqual(sum(b"[127.0.0.1])" in line for line in received), 2, received)
        self.assertEqual(sum(b"[IPv6:::1])" in line for line in received), 1, received)
        proxy.wait_for_log("[            ::1] Connection Request.")

    def test_both_ports(self):
        """Also the port for TLS is listened on at each address; what it says is not the matter here."""
        proxy = self.trabex(self.sample_server().port, {"BindIP": f"{IPV6_LOOPBACK}, {LOOPBACK}"}, start=False)
        tls_port = free_port()
        certificate = self.place.folder / "mail.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-keyout", certificate, "-out", certificate.with_suffix(".crt"), "-subj",
                        "/CN=proxy.example", "-days", "100"], check=True, capture_output=True)
        with open(certificate, "ab") as pem:
            pem.write(certificate.with_suffix(".crt").read_bytes())
        proxy.sections = {"TLS": {"Certificate": certificate}}
        proxy.write_ini(BindPortTLS=tls_port)
        proxy.start()
        proxy.wait_for_log(f"Listen on: [::1]:{proxy.port}, {LOOPBACK}:{proxy.port}, [::1]:{tls_port} (TLS), "
                           f"{LOOPBACK}:{tls_port} (TLS); Connect to: ")
        for address in (IPV6_LOOPBACK, LOOPBACK):
            for port in (proxy.port, tls_port):
                self.connect((address, port))
        self.assertTrue(is_listening(tls_port))

    def test_all_of_both_families(self):
        """"0.0.0.0, ::" are two listeners; and "::" makes way for one of its addresses at a reload."""
        ini = self.place.folder / "all.ini"
        own = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--user", "--map-root-user", "--net"]
        if subprocess.run([*own, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("no network of its own")
        # The server does not answer, so who is admitted hears 421; LOOPBACK is nobody's after the reload.
        done = subprocess.run([*own, sys.executable, "-c", IN_OWN_NETWORK, program("Trabex"), ini, str(free_port()),
                               "0.0.0.0, ::", IPV6_LOOPBACK, IPV6_LOOPBACK, LOOPBACK], capture_output=True, text=True,
                              timeout=bound(90), check=False)
        self.assertEqual(done.stdout.splitlines(), ["421 421", "421 refused", "0"], done.stderr)

    def test_a_server_on_ipv6(self):
        with socket.create_server((IPV6_LOOPBACK, 0), family=socket.AF_INET6) as server:
            port = server.getsockname()[1]
            for server_ip in (IPV6_LOOPBACK, "0:0::1"):
                proxy = self.trabex(port, {"ServerIP": server_ip})
                self.assertTrue(proxy.log_lines()[-1].endswith(f"Connect to: [::1]:{port}."), proxy.log_lines()[-1])
                client = self.connect(proxy.address)
                server.settimeout(bound(20))
                connection, (address, *_) = server.accept()
                self.assertEqual(address, IPV6_LOOPBACK)
                with connection:
                    connection.sendall(b"220 over IPv6\r\n")
                    self.assertEqual(client.read_reply(), "220 over IPv6")
                proxy.wait_for_log("S: {")
                self.assertTrue(any("[            ::1] Connected." in line for line in proxy.log_lines()))

    def test_helo_name_has_an_address_of_the_clients_family(self):
        proxy = self.trabex(self.sample_server().port,
                            {"BindIP": f"{LOOPBACK}, {IPV6_LOOPBACK}", "ValidateHELO": 3})
        for address in (LOOPBACK, IPV6_LOOPBACK):
            client = self.greeted(address, proxy.port)
            self.assertEqual(client.command("HELO localhost")[:3], "250", address)
        client = self.greeted(LOOPBACK, proxy.port, source="127.0.0.9")
        self.assertEqual(client.command("HELO localhost")[:3], "550")


class Reload(Greeted):
    def reload(self, proxy, times, **changes):
        proxy.write_ini(**changes)
        proxy.process.send_signal(signal.SIGHUP)
        proxy.wait_for_log(RELOADED, times)
        proxy.wait_for_log("Listen on: ", times + 1)

    def test_adds_and_removes_addresses_and_loses_nobody(self):
        proxy = self.trabex(self.sample_server().port, {"BindIP": f"{LOOPBACK}, 127.0.0.2"})
        old = self.greeted("127.0.0.2", proxy.port)
        # While the program stands still, a client waits to be accepted and the file changes.
        proxy.process.send_signal(signal.SIGSTOP)
        waiting = [self.connect((LOOPBACK, proxy.port)) for _ in range(5)]
        proxy.write_ini(BindIP=f"{IPV6_LOOPBACK}, {LOOPBACK}")
        proxy.process.send_signal(signal.SIGHUP)
        proxy.process.send_signal(signal.SIGCONT)
        proxy.wait_for_log(RELOADED)
        for client in waiting:
            self.assertEqual(client.read_reply()[:3], "220")
        proxy.wait_for_log(f"Listen on: [::1]:{proxy.port}, {LOOPBACK}:{proxy.port}; ")
        self.greeted(IPV6_LOOPBACK, proxy.port)
        self.greeted(LOOPBACK, proxy.port)
        self.assertNobodyListens("127.0.0.2", proxy.port)
        # The session on the address that has gone goes on.
        self.assertEqual(old.command("EHLO client.example")[:3], "250")
        self.reload(proxy, 2, BindIP=IPV6_LOOPBACK)
        self.assertNobodyListens(LOOPBACK, proxy.port)
        self.greeted(IPV6_LOOPBACK, proxy.port)

    def test_under_load(self):
        """Clients that come all the time meet no refusal where a listener stays."""
        proxy = self.trabex(self.sample_server().port, {"LogLevelServer": 0, "LogLevelRemote": 0})
        end = time.monotonic() + 2
        reloads = 0
        greeted = 0
        while time.monotonic() < end or reloads < 5:
            client = self.greeted(LOOPBACK, proxy.port)
            greeted += 1
            client.close()
            if greeted % 20 == 0:
                proxy.write_ini(BindIP=LOOPBACK if reloads % 2 else f"{LOOPBACK}, {IPV6_LOOPBACK}")
                proxy.process.send_signal(signal.SIGHUP)
                reloads += 1
        proxy.wait_for_log(RELOADED)

    def test_to_an_address_that_is_taken_changes_nothing(self):
        proxy = self.trabex(self.sample_server().port, {"AutoReload": 0})
        with socket.create_server((IPV6_LOOPBACK, proxy.port), family=socket.AF_INET6) as taken:
            proxy.write_ini(BindIP=f"{LOOPBACK}, {IPV6_LOOPBACK}")
            proxy.process.send_signal(signal.SIGHUP)
            proxy.wait_for_log("Configuration not reloaded; the one in force stays.")
            taken.setblocking(False)
            with self.assertRaises(BlockingIOError):
                taken.accept()
        self.assertRegex(proxy.log_lines()[-2], rf"Error 10048 binding to \[::1\]:{proxy.port}\. .")
        self.greeted(LOOPBACK, proxy.port)

    def test_to_a_loop_changes_nothing(self):
        proxy = self.trabex(self.sample_server().port, {"AutoReload": 0})
        proxy.write_ini(BindIP=f"{LOOPBACK}, {IPV6_LOOPBACK}", ServerIP=IPV6_LOOPBACK, ServerPort=proxy.port)
        proxy.process.send_signal(signal.SIGHUP)
        proxy.wait_for_log("Configuration not reloaded; the one in force stays.")
        self.assertIn("Loop detected: ", proxy.log_lines()[-2])
        self.greeted(LOOPBACK, proxy.port)
        self.assertNobodyListens(IPV6_LOOPBACK, proxy.port)


@only_ipv4("clients and servers of both families are in it")
class BadStart(Scenario):
    def run_bad(self, settings):
        """Returns the log's messages; the same reason is on standard error."""
        ini = self.place.folder / "bad.ini"
        log = self.place.new_folder("logs") / "Log"
        ini.write_text("[Common]\n" + "".join(f"{key}={value}\n" for key, value in settings.items()))
        status, out, err = run_trabex("/I", ini, "/HI", "/L", log)
        lines = [line[18:] for file in log.glob("*.log")
                 for line in file.read_bytes().decode().split("\r\n") if line]
        self.assertEqual((status, out), (1, ""), f"{err}{lines}")
        self.assertEqual(lines[0], "Trabex 3.04.012 started.")
        self.assertEqual(lines[2:], ["Trabex 3.04.012 stopped."])
        self.assertIn(lines[1], err)
        return lines[1]

    def test_an_address_that_is_taken(self):
        """All or none: the first that fails is named."""
        with socket.create_server((IPV6_LOOPBACK, 0), family=socket.AF_INET6) as taken:
            port = taken.getsockname()[1]
            reason = self.run_bad({"BindIP": f"{LOOPBACK}, {IPV6_LOOPBACK}", "BindPort": port})
        self.assertRegex(reason, rf"^Error 10048 binding to \[::1\]:{port}\. .")

    def test_an_address_of_somebody_else(self):
        port = free_port()
        reason = self.run_bad({"BindIP": f"{LOOPBACK}, 2001:DB8:0::1", "BindPort": port})
        self.assertRegex(reason, rf"^Error 10049 binding to \[2001:db8::1\]:{port}\. .")

    def test_a_loop(self):
        port = free_port()
        for bind_ip, server in ((f"{LOOPBACK}, {IPV6_LOOPBACK}", IPV6_LOOPBACK), (IPV6_LOOPBACK, "0:0:0:0:0:0:0:1"),
                                (IPV6_LOOPBACK, "::"), (f"{IPV6_LOOPBACK}, {LOOPBACK}", "localhost")):
            self.assertEqual(
                self.run_bad({"BindIP": bind_ip, "BindPort": port, "ServerIP": server, "ServerPort": port}),
                "Loop detected: Server IP address and port point to listening address and port.", server)


if __name__ == "__main__":
    main()

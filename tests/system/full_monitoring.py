#!/usr/bin/env python3
"""What is packaged for monitoring, with the programs that it is made for: Prometheus, fail2ban, rsyslog and logrotate.

./test --full runs it; the others would have to install too much for it.
"""

import contextlib
import grp
import gzip
import json
import os
import pwd
import re
import shutil
import socket
import subprocess
import threading
import urllib.error
import urllib.parse
import urllib.request

from json_lines import read_line
from messages import text_message
from monitoring_files import MONITORING, PACKAGING, alert_rules, dashboard_expressions
from trabex_system import (DOMAIN, FAMILY, LOOPBACK, Process, Scenario, bound, endpoint, free_port, main, polite_server,
                           program, run_trabex, wait_until)


def run(*command, **more):
    """Runs a program to its end and returns its status and all that it said."""
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=bound(60), check=False, **{"stdin": subprocess.DEVNULL, **more})
    return done.returncode, done.stdout


class Monitored(Scenario):
    def start(self):
        """Trabex with HTTP and a log in JSON, in front of a server that refuses one recipient."""
        def rcpt(_connection, line):
            return "550 no such user" if "nobody@" in line else "250 ok"

        self.http_port = free_port()
        self.proxy = self.trabex(
            self.scripted_server(polite_server(replies={"RCPT": rcpt})).port, {"SendersBlackList": "bad@*"},
            sections={"Service": {"StatusHTTP": endpoint(self.http_port)}})

    def run_session(self):
        """One with a refusal of the proxy, one of the server, and a message."""
        client = self.connect(self.proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<bad@{DOMAIN}>", f"MAIL FROM:<s@{DOMAIN}>",
                     f"RCPT TO:<nobody@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>", "DATA"):
            client.command(line)
        client.send(text_message(1) + b".\r\n")
        client.read_reply()
        client.command("QUIT")
        client.read_to_end()


class Prometheus(Monitored):
    def query(self, expression):
        """The result of a query, a list, empty while Prometheus still starts; an error fails."""
        url = f"http://{endpoint(self.port)}/api/v1/query?{urllib.parse.urlencode({'query': expression})}"
        try:
            with urllib.request.urlopen(url, timeout=bound(20)) as answer:
                result = json.load(answer)
        except urllib.error.HTTPError as error:
            if error.code != 503:
                raise
            return []
        self.assertEqual(result["status"], "success", expression)
        return result["data"]["result"]

    def start_prometheus(self):
        folder = self.place.new_folder("prometheus")
        configuration = folder / "prometheus.yml"
        self.port = free_port()
        configuration.write_text(f"""
global: {{scrape_interval: 1s, evaluation_interval: 1s}}
rule_files: ["{MONITORING / 'trabex-alerts.yml'}"]
scrape_configs:
  - job_name: trabex
    static_configs: [{{targets: ["{endpoint(self.http_port)}"]}}]
""", encoding="utf-8")
        process = Process(self.place, "prometheus", [
            "prometheus", f"--config.file={configuration}", f"--storage.tsdb.path={folder / 'data'}",
            f"--web.listen-address={endpoint(self.port)}"])
        self.place.on_leaving(process.end)
        process.wait_listening(self.port)

    def test_metrics_are_as_promtool_wants_them(self):
        self.start()
        self.run_session()
        with urllib.request.urlopen(f"http://{endpoint(self.http_port)}/metrics", timeout=bound(20)) as answer:
            text = answer.read().decode("utf-8")
        self.assertEqual(run("promtool", "check", "metrics", stdin=None, input=text), (0, ""))
        status, said, _ = run_trabex("/STATUS", "/I", self.proxy.ini)
        self.assertEqual(status, 0)
        self.assertEqual(run("promtool", "check", "metrics", stdin=None, input=said), (0, ""))
        # It is not content with anything.
        self.assertNotEqual(run("promtool", "check", "metrics", stdin=None, input=text.replace("# HELP", "# help"))[1], "")

    def test_rules(self):
        status, said = run("promtool", "test", "rules", MONITORING / "trabex-alerts-test.yml")
        self.assertEqual(status, 0, said)
        status, said = run("promtool", "check", "rules", MONITORING / "trabex-alerts.yml")
        self.assertEqual(status, 0, said)

    def test_scrape_dashboard_and_alerts(self):
        self.start()
        self.start_prometheus()
        wait_until(lambda: self.query("up{job=\"trabex\"} == 1"), "the first scrape")
        with urllib.request.urlopen(f"http://{endpoint(self.http_port)}/metrics", timeout=bound(20)) as answer:
            samples = [line for line in answer.read().decode("utf-8").splitlines() if not line.startswith("#")]
        (count,) = self.query('count({__name__=~"trabex_.+"})')
        self.assertEqual(int(count["value"][1]), len(samples))
        # What shows only what is there has something to show, and rates have two values.
        self.run_session()
        wait_until(lambda: self.query("increase(trabex_messages_total[1m]) > 0"), "the message")
        for panel, expression in dashboard_expressions():
            with self.subTest(panel=panel, expression=expression):
                self.assertTrue(self.query(expression.replace("$instance", ".*")))
        for rule in alert_rules():
            with self.subTest(rule=rule):
                self.query(rule)
        # A name with a slip of the pen would have been noticed.
        self.assertEqual(self.query("trabex_message_total"), [])
        self.assertEqual(len(self.rules()), len(list(alert_rules())))
        wait_until(lambda: all(rule["health"] == "ok" for rule in self.rules()), "the rules to be evaluated")

    def rules(self):
        with urllib.request.urlopen(f"http://{endpoint(self.port)}/api/v1/rules", timeout=bound(20)) as answer:
            return [rule for group in json.load(answer)["data"]["groups"] for rule in group["rules"]]


class Fail2ban(Monitored):
    def refuse(self, *lines):
        client = self.connect(self.proxy.address)
        client.read_reply()
        for line in lines:
            client.command(line)
        client.close()

    def write_log(self):
        """A log with three refusals that count, and others; the client is a remote one."""
        server = self.scripted_server(polite_server())
        self.proxy = self.trabex(server.port, {"LocalIPs": "192.0.2.1", "LocalDomains": DOMAIN,
                                               "RecipientsBlackListRemote": "gone@*", "MaxRecipientsRemote": 1})
        hello, mail = "EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>"
        self.refuse(hello, mail, "RCPT TO:<r@elsewhere.example>")
        self.refuse(hello, mail, f"RCPT TO:<gone@{DOMAIN}>")
        # Somebody who tries to have another one banned.
        self.refuse('EHLO x","client":"192.0.2.66","origin":"remote",', mail, "RCPT TO:<r@elsewhere.example>")
        # Not of his own doing, or nothing to be banned for.
        self.refuse(hello, mail, f"RCPT TO:<r@{DOMAIN}>", f"RCPT TO:<q@{DOMAIN}>")
        self.refuse(hello, "RCPT TO:<x>")
        self.assertEqual(self.proxy.end(), 0)
        return self.proxy.json_log

    def test_filter(self):
        log = self.write_log()
        text = log.read_text(encoding="utf-8")
        lines = text.splitlines()
        other = log.with_name("others.json")
        # The same from elsewhere.
        other.write_text(text + text.replace(f'"client":"{LOOPBACK}"', '"client":"203.0.113.9"')
                         + text.replace(f'"client":"{LOOPBACK}"', '"client":"2001:db8::9"'), encoding="utf-8")
        for file, factor in ((log, 1), (other, 3)):
            status, said = run("fail2ban-regex", "--print-all-matched", file,
                               PACKAGING / "fail2ban" / "trabex-filter.conf")
            self.assertEqual(status, 0, said)
            found = re.search(r"Lines: (\d+) lines, (\d+) ignored, (\d+) matched, (\d+) missed", said)
            self.assertIsNotNone(found, said)
            self.assertEqual(tuple(map(int, found.groups())),
                             (factor * len(lines), 0, factor * 3, factor * (len(lines) - 3)), said)
            # Each has its time.
            self.assertRegex(said, rf"\[{factor * len(lines)}\] .*Year", said)
            self.assertNotIn("192.0.2.66\n", said)

    def test_jail(self):
        folder = self.place.new_folder("fail2ban")
        shutil.copytree("/etc/fail2ban", folder / "etc")
        shutil.copy(PACKAGING / "fail2ban" / "trabex-filter.conf", folder / "etc" / "filter.d" / "trabex.conf")
        log = self.write_log()
        for jail in (folder / "etc" / "jail.d").iterdir():
            jail.unlink()
        text = (PACKAGING / "fail2ban" / "trabex-jail.conf").read_text(encoding="utf-8")
        (folder / "etc" / "jail.d" / "trabex.conf").write_text(text.replace("/var/log/trabex/*.json", str(log.parent / "*.json")),
                                                               encoding="utf-8")
        status, said = run("fail2ban-client", "-c", folder / "etc", "-d")
        self.assertEqual(status, 0, said)
        self.assertIn(f"['set', 'trabex', 'addlogpath', '{log}', 'head']", said)
        self.assertIn("['add', 'trabex',", said)


class Rotation(Monitored):
    def test_rotation_under_traffic(self):
        self.start()
        folder = self.place.new_folder("logrotate")
        configuration = folder / "trabex"
        # Instances are found by the ports in the names of their files.
        (folder / f"{self.proxy.port}.ini").symlink_to(self.proxy.ini)
        user, group = pwd.getpwuid(os.geteuid()).pw_name, grp.getgrgid(os.getegid()).gr_name
        text = (PACKAGING / "logrotate").read_text(encoding="utf-8")
        for packaged, own in (("/var/log/trabex/*.json", self.proxy.folder / "*.json"),
                              ("/var/log/trabex", self.proxy.log_folder), ("/etc/trabex", folder),
                              ("/usr/sbin/Trabex", program("Trabex")), ("su trabex trabex", f"su {user} {group}")):
            self.assertIn(packaged, text)
            text = text.replace(packaged, str(own))
        configuration.write_text(text, encoding="utf-8")
        configuration.chmod(0o644)
        old = self.proxy.log_folder / "Trabex-25-200101.log"
        old.write_bytes(b"long ago\r\n")
        os.utime(old, (1_577_000_000, 1_577_000_000))
        status, said = run("logrotate", "-d", "-s", folder / "state", configuration)
        self.assertEqual(status, 0, said)
        self.assertNotIn("error:", said)

        stop = threading.Event()
        sessions = [0]

        def send():
            while not stop.is_set():
                self.run_session()
                sessions[0] += 1

        sender = threading.Thread(target=send)
        sender.start()
        try:
            for rotation in range(3):
                before = sessions[0]
                wait_until(lambda least=before + 3: sessions[0] > least, "sessions")
                self.assertEqual(run("logrotate", "-f", "-s", folder / "state", configuration), (0, ""), rotation)
        finally:
            stop.set()
            sender.join()
        self.assertFalse(old.exists())
        self.assertEqual(self.proxy.end(), 0)
        parts = sorted(self.proxy.folder.glob("trabex.json*"))
        self.assertEqual([part.name for part in parts],
                         ["trabex.json", "trabex.json.1", "trabex.json.2.gz", "trabex.json.3.gz"])
        events = []
        for part in parts:
            data = gzip.decompress(part.read_bytes()) if part.suffix == ".gz" else part.read_bytes()
            events += [read_line(line)["event"] for line in data.splitlines()]
        self.assertEqual([events.count(event) for event in ("start", "stop", "session", "message", "refusal")],
                         [1, 1, sessions[0], sessions[0], sessions[0]])


class Rsyslog(Monitored):
    def test_lines_are_handed_on(self):
        self.start()
        self.run_session()
        folder = self.place.new_folder("rsyslog")
        with socket.create_server((LOOPBACK, 0), family=FAMILY) as listener:
            listener.settimeout(bound(20))
            text = (PACKAGING / "rsyslog.conf").read_text(encoding="utf-8")
            for packaged, own in (("/var/log/trabex/*.json", str(self.proxy.folder / "*.json")),
                                  ("loghost.example.org", LOOPBACK), ('"6514"', f'"{listener.getsockname()[1]}"')):
                self.assertIn(packaged, text)
                text = text.replace(packaged, own)
            configuration = folder / "rsyslog.conf"
            configuration.write_text(f'global(workDirectory="{folder}")\n{text}', encoding="utf-8")
            status, said = run("rsyslogd", "-N1", "-f", configuration)
            self.assertEqual(status, 0, said)
            self.assertNotRegex(said, "error|warning")
            process = Process(self.place, "rsyslogd", ["rsyslogd", "-n", "-f", configuration, "-i", folder / "pid"])
            self.place.on_leaving(process.end)
            connection, _ = listener.accept()
            self.run_session()
            self.assertEqual(self.proxy.end(), 0)
            wanted = self.proxy.json_log.read_bytes()
            arrived = b""
            connection.settimeout(bound(20))
            with contextlib.closing(connection):
                while len(arrived) < len(wanted):
                    part = connection.recv(65536)
                    if not part:
                        break
                    arrived += part
        self.assertEqual(arrived, wanted)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""What Trabex tells about itself: its counters, over HTTP and by /STATUS, and the log in JSON."""

import contextlib
import http.client
import re
import socket
import tomllib

from exposition import BadExposition, read_exposition
from json_lines import FIELDS, read_line
from messages import text_message
from monitoring_files import MONITORING, PACKAGING, alert_rules, dashboard, dashboard_expressions, selectors
from trabex_system import (DOMAIN, FAMILY, LOOPBACK, Scenario, Smtp, endpoint, free_port, in_family, main, polite_server,
                           run_trabex, wait_until, without_received)

ALL_EVENTS = "start, stop, reload, refusal, greylisting, message, session, error"


def refuse_nobody(_connection, line):
    return "550 no such user" if "nobody@" in line else "250 ok"


class Told(Scenario):
    def start(self, settings=None, service=None, replies=None, sections=None):
        """Trabex in front of a polite server, with HTTP and the JSON log of all sessions."""
        self.server = self.scripted_server(polite_server(replies={"RCPT": refuse_nobody, **(replies or {})}))
        self.http_port = free_port()
        self.proxy = self.trabex(self.server.port, settings, sections={
            "Service": {"StatusHTTP": endpoint(self.http_port), "JsonEvents": ALL_EVENTS, **(service or {})},
            **(sections or {})})
        return self.proxy

    def get(self, path, method="GET"):
        connection = http.client.HTTPConnection(LOOPBACK, self.http_port, timeout=20)
        with contextlib.closing(connection):
            connection.request(method, path)
            response = connection.getresponse()
            return response.status, response.read().decode("utf-8")

    def metrics(self):
        status, text = self.get("/metrics")
        self.assertEqual(status, 200)
        return read_exposition(text)[0]

    def value(self, name, **labels):
        return self.metrics()[("trabex_" + name, tuple(sorted(labels.items())))]

    def wait_for_no_session(self):
        wait_until(lambda: self.value("sessions_open") == 0, "the end of all sessions")

    def run_traffic(self):
        """A session with a refusal and a message; one with a recipient that the server refuses; one that says
        nothing; one that is refused at once."""
        client = self.connect(self.proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<bad@{DOMAIN}>", f"MAIL FROM:<s@{DOMAIN}>",
                     f"RCPT TO:<r@{DOMAIN}>", "DATA"):
            client.command(line)
        client.send(text_message(1) + b".\r\n")
        client.read_reply()
        client.command("QUIT")
        client.read_to_end()

        client = self.connect(self.proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<nobody@{DOMAIN}>",
                     "TURN", "NOOP"):
            client.command(line)
        client.close()

        client = self.connect(self.proxy.address)
        client.read_reply()
        client.close()
        self.wait_for_no_session()


class Counters(Told):
    def test_each_has_what_the_traffic_made_of_it(self):
        self.start({"SendersBlackList": "bad@*"})
        self.run_traffic()
        samples = self.metrics()
        counted = {key: value for key, value in samples.items()
                   if key[0].endswith("_total") and value != 0 and key[0] != "trabex_bytes_total"}
        expected = {}

        def expect(value, name, **labels):
            expected[("trabex_" + name, tuple(sorted(labels.items())))] = value

        expect(3, "sessions_total", origin="local")
        expect(1, "sessions_ended_total", how="quit")
        expect(2, "sessions_ended_total", how="client")
        expect(1, "replies_total", key="MAIL.BlackList", code="550")
        expect(1, "replies_total", key="NotImplemented", code="502")
        expect(3, "server_replies_total", command="other", **{"class": "2xx"})
        expect(2, "server_replies_total", command="EHLO", **{"class": "2xx"})
        expect(2, "server_replies_total", command="MAIL", **{"class": "2xx"})
        expect(1, "server_replies_total", command="RCPT", **{"class": "2xx"})
        expect(1, "server_replies_total", command="RCPT", **{"class": "5xx"})
        expect(1, "server_replies_total", command="DATA", **{"class": "3xx"})
        expect(1, "server_replies_total", command="DATA", **{"class": "2xx"})
        expect(1, "server_replies_total", command="NOOP", **{"class": "2xx"})
        expect(1, "server_replies_total", command="QUIT", **{"class": "2xx"})
        expect(1, "messages_total", origin="local")
        expect(1, "recipients_total", origin="local", result="accepted")
        expect(1, "recipients_total", origin="local", result="server_refused")
        lookups = {key: counted.pop(key) for key in list(counted) if key[0] == "trabex_lookups_total"}
        self.assertEqual(counted, expected)
        # Names of clients depend on the machine; each session asks for one.
        self.assertEqual(sum(lookups.values()), 3)
        self.assertEqual(samples[("trabex_server_connect_seconds_count", ())], 3)
        self.assertGreater(samples[("trabex_turn_seconds_count", ())], 0)
        self.assertEqual(samples[("trabex_sessions_peak", ())], 1)

    def test_they_match_the_log_in_json(self):
        self.start({"SendersBlackList": "bad@*"})
        self.run_traffic()
        samples = self.metrics()
        self.assertEqual(self.proxy.end(), 0)
        events = self.proxy.json_events()

        def of(name):
            return [event for event in events if event["event"] == name]

        def total(name, **labels):
            wanted = set(labels.items())
            return sum(value for (sample, has), value in samples.items()
                       if sample == "trabex_" + name and wanted <= set(has))

        self.assertEqual(len(of("session")), total("sessions_total"))
        for how in ("quit", "client", "server"):
            self.assertEqual(sum(event["how"] == how for event in of("session")),
                             total("sessions_ended_total", how=how), how)
        self.assertEqual(len(of("refusal")), total("replies_total"))
        for event in of("refusal"):
            self.assertGreater(total("replies_total", key=event["key"]), 0, event)
        self.assertEqual(sum(200 <= event["code"] < 300 for event in of("message")), total("messages_total"))
        for side in ("client", "server"):
            for way in ("in", "out"):
                self.assertEqual(sum(event[f"{side}_bytes_{way}"] for event in of("session")),
                                 total("bytes_total", side=side, direction=way), (side, way))
        self.assertEqual(sum(event["recipients_count"] for event in of("message")),
                         total("recipients_total", result="accepted"))
        self.assertEqual([event["event"] for event in events][0], "start")
        self.assertEqual([event["event"] for event in events][-1], "stop")

    def test_remote_clients_and_greylisting(self):
        self.start({"LocalIPs": "192.0.2.1", "LocalDomains": DOMAIN, "MaxRecipientsRemote": 10, "SendersBlackList": "bad@*"},
                   sections={"GreyListing": {"Enabled": 1, "Delay": 0, "MinCount": 2, "IPWhiteList": in_family("127.0.0.77"),
                                             "Database": self.place.new_folder("database") / "greylisting.gldb"}})
        for sender, recipient, address in (("s", "r", "127.0.0.1"), ("s", "r", "127.0.0.1"), ("s", "r", "127.0.0.1"),
                                           ("s", "r", "127.0.0.77"), ("s", "q", "127.0.0.1"),
                                           ("s", "nobody", "127.0.0.1"), ("bad", "r", "127.0.0.1")):
            client = self.connect(self.proxy.address, source=in_family(address))
            client.read_reply()
            for line in ("EHLO client.example", f"MAIL FROM:<{sender}@{DOMAIN}>", f"RCPT TO:<{recipient}@{DOMAIN}>",
                         "RCPT TO:<r@elsewhere.example>", "QUIT"):
                client.command(line)
            client.read_to_end()
        self.wait_for_no_session()
        samples = self.metrics()
        self.assertEqual(self.proxy.end(), 0)
        events = self.proxy.json_events()

        def counted(family):
            return {labels: value for (name, labels), value in samples.items() if name == "trabex_" + family and value}

        def labelled(**labels):
            return tuple(sorted(labels.items()))

        outcomes = {"new": 3, "delayed": 1, "accepted": 1, "whitelisted": 1}
        self.assertEqual(counted("greylisting_total"), {labelled(outcome=name): count for name, count in outcomes.items()})
        judged = [event["outcome"] for event in events if event["event"] == "greylisting"]
        self.assertEqual({name: judged.count(name) for name in judged}, outcomes)
        self.assertEqual(counted("recipients_total"), {labelled(origin="remote", result=result): count for result, count in
                                                       {"accepted": 2, "deferred": 4, "refused": 6}.items()})
        refused = {"RCPT.Greylisted": 4, "RCPT.Relaying": 6, "MAIL.BlackList": 1, "BadSeq.NoTransaction": 2}
        self.assertEqual({dict(labels)["key"]: count for labels, count in counted("replies_total").items()}, refused)
        keys = [event["key"] for event in events if event["event"] == "refusal"]
        self.assertEqual({key: keys.count(key) for key in keys}, refused)
        self.assertEqual(counted("sessions_total"), {labelled(origin="remote"): 7})
        self.assertEqual(counted("sessions_ended_total"), {labelled(how="quit"): 7})
        self.assertEqual(samples[("trabex_greylisting_records", ())], 3)

    def test_the_request_gives_the_same_text(self):
        self.start()
        status, text, errors = run_trabex("/STATUS", "/I", self.proxy.ini)
        self.assertEqual((status, errors), (0, ""))
        read_exposition(text)
        names = set(re.findall(r"^# TYPE (\w+)", text, re.M))
        self.assertEqual(names, set(re.findall(r"^# TYPE (\w+)", self.get("/metrics")[1], re.M)))
        self.assertEqual(run_trabex("/STATUS", "sessions_open", "/I", self.proxy.ini), (0, "0\n", ""))
        self.assertEqual(run_trabex("--status", 'trabex_messages_total{origin="local"}', "/I", self.proxy.ini),
                         (0, "0\n", ""))
        status, text, errors = run_trabex("/STATUS", "nonsense", "/I", self.proxy.ini)
        self.assertEqual((status, text, errors), (1, "", 'Trabex: There is no value "nonsense".\n'))

    def test_the_reader_is_strict(self):
        good = "# HELP a_total b\n# TYPE a_total counter\na_total{x=\"1\"} 1\n"
        read_exposition(good)
        for bad in (good[:-1], good + good, good.replace(" 1\n", " one\n"), good.replace("counter", "gauge"),
                    good.replace("# TYPE a_total counter\n", ""), good + "a_total{x=\"1\"} 2\n", good + "b 1\n",
                    good.replace('x="1"', 'x="1",'), good.replace('x="1"', 'x=1'), good + "\n"):
            with self.assertRaises(BadExposition, msg=bad):
                read_exposition(bad)


class Health(Told):
    def test_it_is_good_until_the_server_cannot_be_reached(self):
        self.start()
        self.assertEqual(self.get("/healthz"), (200, "OK\n"))
        self.server.stop_listening()
        client = self.connect(self.proxy.address)
        self.assertIn(b"421 ", client.read_to_end())
        status, text = self.get("/healthz")
        self.assertEqual(status, 503)
        self.assertIn("The server cannot be reached", text)
        self.assertEqual(self.value("server_connect_failures_total"), 1)

    def test_other_requests(self):
        self.start()
        self.assertEqual(self.get("/")[0], 404)
        self.assertEqual(self.get("/metrics", "POST")[0], 405)
        self.assertEqual(self.get("/healthz", "DELETE")[0], 405)


class Hostile(Told):
    def test_http_leaves_mail_untouched(self):
        content = []
        self.server = self.scripted_server(polite_server(content=content))
        self.http_port = free_port()
        self.proxy = self.trabex(self.server.port,
                                 sections={"Service": {"StatusHTTP": endpoint(self.http_port)}})
        address = (LOOPBACK, self.http_port)
        openings = [b"", b"G", b"GET /metrics HTTP/1.1\r\n", b"\x16\x03\x01\x02\x00", b"GET /metrics HTTP/1.1\r\n\r\n" * 500,
                    b"GET /" + b"a" * 100000 + b" HTTP/1.1\r\n\r\n", b"\r\n" * 3000, b"\0" * 9000] * 4
        held = []
        for opening in openings:
            with contextlib.suppress(OSError):
                connection = socket.create_connection(address, timeout=20)
                held.append(connection)
                connection.sendall(opening)
        for number in range(5):
            with Smtp(self.proxy.address) as client:
                client.sendmail(f"s@{DOMAIN}", f"r@{DOMAIN}", text_message(number))
            # Who takes his time goes on with it.
            for connection in held:
                with contextlib.suppress(OSError):
                    connection.sendall(b"X")
        self.assertEqual([without_received(message) for message in content], [text_message(number) for number in range(5)])
        for connection in held:
            connection.close()
        wait_until(self._answers, "an answer")
        self.assertEqual(self.value("messages_total", origin="local"), 5)
        self.assertEqual(self.value("sessions_ended_total", how="quit"), 5)

    def _answers(self):
        try:
            return self.get("/healthz")[0] == 200
        except (OSError, http.client.HTTPException):
            return False

    def test_a_port_that_is_taken_is_one_line_of_the_log(self):
        with socket.create_server((LOOPBACK, 0), family=FAMILY) as taken:
            self.server = self.scripted_server(polite_server())
            proxy = self.trabex(self.server.port, sections={
                "Service": {"StatusHTTP": endpoint(taken.getsockname()[1])}})
            lines = [line for line in proxy.log_lines() if line.startswith("Status cannot be asked for at ")]
            self.assertEqual(len(lines), 1, lines)
            with Smtp(proxy.address) as client:
                self.assertEqual(client.ehlo()[0], 250)


class JsonLog(Told):
    def test_both_logs_tell_of_the_same_sessions(self):
        self.start({"SendersBlackList": "bad@*"})
        self.run_traffic()
        self.assertEqual(self.proxy.end(), 0)
        begun = [re.match(r"R: \{ *(\d+)\} .* Connection Request\.", line) for line in self.proxy.log_lines()]
        handles = [int(found.group(1)) for found in begun if found]
        sessions = [event for event in self.proxy.json_events() if event["event"] == "session"]
        self.assertEqual([event["client_handle"] for event in sessions], handles)
        connected = [re.match(r"S: \{ *(\d+)\} .* Connected\.", line) for line in self.proxy.log_lines()]
        self.assertEqual([event["server_handle"] for event in sessions],
                         [int(found.group(1)) for found in connected if found])
        self.assertEqual(len({event["session"] for event in sessions}), len(sessions))
        for event in sessions:
            self.assertRegex(event["session"], "^[0-9a-f]{16}$")

    def test_the_log_can_be_moved(self):
        self.start()
        moved = self.proxy.json_log.with_suffix(".1")
        self.run_traffic()
        self.proxy.json_log.rename(moved)
        self.assertEqual(run_trabex("/REOPENLOG", "/I", self.proxy.ini)[0], 0)
        self.run_traffic()
        self.assertEqual(self.proxy.end(), 0)
        before = [read_line(line) for line in moved.read_bytes().splitlines()]
        after = self.proxy.json_events()
        self.assertEqual([sum(event["event"] == "session" for event in log) for log in (before, after)], [3, 3])
        self.assertEqual(self.proxy.json_log.stat().st_mode & 0o137, 0)

    def test_standard_output(self):
        server = self.scripted_server(polite_server())
        proxy = self.trabex(server.port, sections={"Service": {"JsonLog": "-"}})
        with Smtp(proxy.address) as client:
            client.sendmail(f"s@{DOMAIN}", f"r@{DOMAIN}", text_message(1))
        self.assertEqual(proxy.end(), 0)
        events = [read_line(line.encode("utf-8")) for line in proxy.process.stdout().splitlines()]
        self.assertEqual([event["event"] for event in events], ["start", "message", "session", "stop"])


class Packaged(Told):
    """What is packaged for other programs asks for what there is."""

    def labels_of_series(self):
        labels = {}
        for name, pairs in self.metrics():
            labels.setdefault(name, set()).update(label for label, _ in pairs)
        return labels

    def test_dashboard_and_rules_name_series_that_exist(self):
        self.start()
        labels = self.labels_of_series()
        asked = [*dashboard_expressions(), *(("an alert rule", rule) for rule in alert_rules())]
        self.assertGreater(len(asked), 20)
        names = set()
        for where, expression in asked:
            with self.subTest(where, expression=expression):
                for name, wanted in selectors(expression):
                    names.add(name)
                    self.assertIn(name, labels)
                    # Those that Prometheus adds are there, too.
                    self.assertLessEqual(set(wanted), labels[name] | {"instance", "job"})
        # The rules, too, are all read.
        text = (MONITORING / "trabex-alerts.yml").read_text(encoding="utf-8")
        self.assertEqual(len(list(alert_rules())), text.count("- alert: "))
        self.assertLessEqual(set(re.findall(r"trabex_\w+", text)), names)
        # What the page says is there, is.
        page = (MONITORING.parent / "docs" / "monitoring.md").read_text(encoding="utf-8")
        told = {name for row in re.findall(r"^\| (`.*?) \| (?:gauge|counter|histogram) \|", page, re.MULTILINE)
                for name in re.findall(r"`(\w+)", row)}
        families = {re.sub("_(bucket|sum|count)$", "", name) for name in labels}
        self.assertEqual({"trabex_" + name for name in told}, families)

    def test_dashboard_can_be_read(self):
        panels = dashboard()["panels"]
        self.assertEqual(len({panel["id"] for panel in panels}), len(panels))
        taken = set()
        for panel in panels:
            with self.subTest(panel["title"]):
                self.assertEqual(panel["datasource"], {"type": "prometheus", "uid": "${DS_PROMETHEUS}"})
                place = panel["gridPos"]
                cells = {(place["x"] + x, place["y"] + y) for x in range(place["w"]) for y in range(place["h"])}
                self.assertFalse(cells & taken)
                self.assertLess(max(x for x, _ in cells), 24)
                taken |= cells
                letters = [target["refId"] for target in panel["targets"]]
                self.assertEqual(len(set(letters)), len(letters))
        self.assertEqual([each["name"] for each in dashboard()["__inputs"]], ["DS_PROMETHEUS"])

    def test_vector_reads_the_log_of_the_others(self):
        parts = tomllib.loads((PACKAGING / "vector.toml").read_text(encoding="utf-8"))
        named = {name for kind in parts.values() for name in kind}
        for kind in ("transforms", "sinks"):
            for name, part in parts[kind].items():
                self.assertLessEqual(set(part["inputs"]), named - {name})
        for file in ("logrotate", "rsyslog.conf", "fail2ban/trabex-jail.conf", "vector.toml"):
            self.assertIn("/var/log/trabex/*.json", (PACKAGING / file).read_text(encoding="utf-8"), file)

    def test_page_names_the_fields_of_all_events(self):
        page = (MONITORING.parent / "docs" / "json-log.md").read_text(encoding="utf-8")
        told = {}
        for event, fields in re.findall(r"^\| `(\w+)` \| [^|]+ \| (`.*) \|$", page, re.MULTILINE):
            without_values = re.sub(r"\((?:[^()]|\([^()]*\))*\)", "", fields)
            told[event] = set(re.findall(r"`(\w+)`", without_values))
        self.assertEqual(told, {event: set(" ".join(fields).split()) for event, fields in FIELDS.items()})


if __name__ == "__main__":
    main()

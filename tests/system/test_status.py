#!/usr/bin/env python3
"""What Trabex tells about itself: its counters, over HTTP and by /STATUS, and the log in JSON."""

import contextlib
import http.client
import json
import re
import socket

from exposition import BadExposition, read_exposition
from messages import text_message
from trabex_system import (DOMAIN, FAMILY, LOOPBACK, Scenario, Smtp, endpoint, free_port, main, polite_server, run_trabex,
                           wait_until)

ALL_EVENTS = "start, stop, reload, refusal, greylisting, message, session, error"


def refuse_nobody(_connection, line):
    return "550 no such user" if "nobody@" in line else "250 ok"


class Told(Scenario):
    def start(self, settings=None, service=None, replies=None):
        """Trabex in front of a polite server, with HTTP and the JSON log of all sessions."""
        self.server = self.scripted_server(polite_server(replies={"RCPT": refuse_nobody, **(replies or {})}))
        self.http_port = free_port()
        self.proxy = self.trabex(self.server.port, settings, sections={
            "Service": {"StatusHTTP": endpoint(self.http_port), "JsonEvents": ALL_EVENTS, **(service or {})}})
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
        self.assertEqual([event["event"] for event in events][0], "start")
        self.assertEqual([event["event"] for event in events][-1], "stop")

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
        self.assertEqual(len(content), 5)
        for connection in held:
            connection.close()
        wait_until(self._answers, "an answer")

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
        before = [json.loads(line) for line in moved.read_text("utf-8").splitlines()]
        after = self.proxy.json_events()
        self.assertEqual([sum(event["event"] == "session" for event in log) for log in (before, after)], [3, 3])
        self.assertEqual(self.proxy.json_log.stat().st_mode & 0o137, 0)

    def test_standard_output(self):
        server = self.scripted_server(polite_server())
        proxy = self.trabex(server.port, sections={"Service": {"JsonLog": "-"}})
        with Smtp(proxy.address) as client:
            client.sendmail(f"s@{DOMAIN}", f"r@{DOMAIN}", text_message(1))
        self.assertEqual(proxy.end(), 0)
        events = [json.loads(line) for line in proxy.process.stdout().splitlines()]
        self.assertEqual([event["event"] for event in events], ["start", "message", "session", "stop"])


if __name__ == "__main__":
    main()

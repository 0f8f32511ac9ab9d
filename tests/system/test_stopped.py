#!/usr/bin/env python3
"""The program stands still for a while, as on a machine that is suspended or out of breath (SIGSTOP), and time goes on: what
the others have said meanwhile counts before any time-out does, and no mail is lost or doubled.

Here the clock is moved while it stands; tests/load/stopped.py lets it stand for as long as one likes.
"""

import signal
import smtplib
import threading
import time
import traceback
from pathlib import Path

from messages import text_message
from shifted_clock import ShiftedClock
from trabex_system import (DOMAIN, Scenario, Smtp, main, polite_server, queued_bytes, wait_until, without_received)

STOPPED_SECONDS = 60


class Stopped(Scenario):
    # How long it really stands; without a number the clock is moved instead.
    REAL_SECONDS = None
    CLIENTS = 10
    # More than the loop takes from the system at a time.
    WAITING = 400
    STOPS = 3

    def start(self, server):
        self.clock = ShiftedClock(self.place.folder)
        seconds = self.REAL_SECONDS or STOPPED_SECONDS
        proxy = self.trabex(server.port, {"Timeout": max(1, int(seconds / 2))}, start=False,
                            sections={"Service": {"ServerTimeout": max(1, int(seconds / 2))}})
        proxy.wrapper = self.clock.wrapper
        return proxy.start()

    def stand_still(self, proxy, meanwhile):
        """Stops it for twice as long as its time-outs are; before it goes on, meanwhile() has returned."""
        proxy.process.send_signal(signal.SIGSTOP)
        begun = time.monotonic()
        meanwhile()
        if self.REAL_SECONDS:
            time.sleep(max(0.0, begun + self.REAL_SECONDS - time.monotonic()))
        else:
            self.clock.move(wall=STOPPED_SECONDS, monotonic=STOPPED_SECONDS)
        proxy.process.send_signal(signal.SIGCONT)

    def test_what_was_said_meanwhile_counts(self):
        """Each of many sessions waits for a reply that has come, and was not read for longer than the server may take."""
        released = threading.Event()
        asked, answered = [], []

        def reply_late(connection, line):
            asked.append(line)
            released.wait()
            connection.send_line("250 late")
            answered.append(line)

        self.addCleanup(released.set)
        server = self.scripted_server(polite_server(replies={"NOOP": reply_late}))
        proxy = self.start(server)
        clients = []
        for _ in range(self.WAITING):
            client = self.connect(proxy.address)
            self.assertEqual(client.read_reply()[:3], "220")
            clients.append(client)
        for client in clients:
            client.send_line("NOOP")
        wait_until(lambda: len(asked) == self.WAITING, "all questions to be at the server")

        def answer():
            released.set()
            wait_until(lambda: len(answered) == self.WAITING, "all replies")

        self.stand_still(proxy, answer)
        replies = [client.read_reply() for client in clients]
        self.assertEqual([reply for reply in replies if reply != "250 late"], [])

    def test_under_traffic(self):
        """Every message arrives once and whole, and no session ends."""
        server = self.sample_server()
        proxy = self.start(server)
        sent, failures = {}, []
        ending = threading.Event()

        def deliver(number):
            try:
                message = 0
                with Smtp(proxy.address) as client:
                    # One session over all of the stops, and the others of one message each.
                    while not ending.is_set():
                        recipient = f"r{number}-{message}@{DOMAIN}"
                        sent[recipient] = text_message(message, message % 50 * 200)
                        if number % 2:
                            client.sendmail(f"s@{DOMAIN}", recipient, sent[recipient])
                        else:
                            with Smtp(proxy.address) as other:
                                other.sendmail(f"s@{DOMAIN}", recipient, sent[recipient])
                        message += 1
            except (OSError, smtplib.SMTPException):
                failures.append(traceback.format_exc())

        threads = [threading.Thread(target=deliver, args=(number,), daemon=True) for number in range(self.CLIENTS)]
        for thread in threads:
            thread.start()
        try:
            for _ in range(self.STOPS):
                before = server.count()
                wait_until(lambda least=before + 50: server.count() > least or failures, "mail")
                self.stand_still(proxy, lambda: self.wait_for_calm(server))
            before = server.count()
            wait_until(lambda: server.count() > before + 50 or failures, "mail")
        finally:
            ending.set()
            for thread in threads:
                thread.join()
        self.assertEqual(failures, [])
        self.assertEqual(server.count(), len(sent))
        for message in server.messages():
            recipient, = message.recipients
            self.assertSame(sent.pop(recipient), without_received(message.content), recipient)
        self.assertEqual(sent, {})

    @staticmethod
    def wait_for_calm(server):
        """Until the server has read everything and waits for more."""
        def sleeps():
            state = Path(f"/proc/{server.process.pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()[0]
            return state == "S" and queued_bytes(server.port) == (0, 0)

        for _ in range(3):
            wait_until(sleeps, "the server to have answered")


if __name__ == "__main__":
    main()

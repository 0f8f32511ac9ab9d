"""Thousands of sessions at a time: to be opened, and some of them to be kept busy."""

import resource
import select
import time
import unittest

from trabex_system import LOOPBACK, connect, trusting

_ALL = trusting(None)


def have_descriptors(count):
    """Lets this process, and those that it starts, open so many descriptors. Skips the case where that cannot be."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard < count:
        raise unittest.SkipTest(f"no more than {hard} files can be open")
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def open_sessions(proxy, count, tls_port):
    """So many greeted clients, every third of them under TLS."""
    clients = []
    for number in range(count):
        secured = number % 3 == 2
        # An address has not enough ports for all of them.
        client = connect((LOOPBACK, tls_port) if secured else proxy.address, source=f"127.0.2.{number % 200 + 1}")
        if secured:
            client.start_tls(_ALL)
        if client.read_reply()[:3] != "220":
            raise AssertionError(f"client {number} is not greeted")
        clients.append(client)
    return clients


def burst(clients, line, code):
    """Each client sends the line, then all replies are read as they come; returns the seconds that each of them took."""
    poll = select.poll()
    waiting = {}
    for client in clients:
        waiting[client.socket.fileno()] = client, time.perf_counter()
        poll.register(client.socket, select.POLLIN)
        client.send_line(line)
    times = []
    while waiting:
        ready = poll.poll(60_000)
        if not ready:
            raise AssertionError(f"{len(waiting)} clients have no reply")
        for descriptor, _ in ready:
            client, begun = waiting.pop(descriptor)
            poll.unregister(descriptor)
            reply = client.read_reply()
            times.append(time.perf_counter() - begun)
            if reply[:3] != code:
                raise AssertionError(f"{line} is answered {reply}")
    return times

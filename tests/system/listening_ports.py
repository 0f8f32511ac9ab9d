"""On which ports somebody listens, asked of the kernel by netlink: its tables in /proc would have all connections too."""

import socket
import struct

_SOCK_DIAG, _SOCK_DIAG_BY_FAMILY = 4, 20  # linux/netlink.h, linux/sock_diag.h
_REQUEST_DUMP = 0x301                     # NLM_F_REQUEST, NLM_F_DUMP
_DONE = 3
_LISTEN = 10
_HEADER = struct.Struct("=IHHII")         # nlmsghdr
_QUESTION = struct.Struct("=BBBBI48x")    # inet_diag_req_v2


def listening_ports():
    """The ports of TCP; None when the kernel does not tell in this way."""
    ports = set()
    try:
        with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW | socket.SOCK_CLOEXEC, _SOCK_DIAG) as diagnosis:
            for family in (socket.AF_INET, socket.AF_INET6):
                diagnosis.send(_HEADER.pack(_HEADER.size + _QUESTION.size, _SOCK_DIAG_BY_FAMILY, _REQUEST_DUMP, 0, 0) +
                               _QUESTION.pack(family, socket.IPPROTO_TCP, 0, 0, 1 << _LISTEN))
                if not _take_answer(diagnosis, ports):
                    return None
    except OSError:
        return None
    return ports


def _take_answer(diagnosis, ports):
    """Adds the ports of one answer, to its end; False for an error."""
    while True:
        answer = diagnosis.recv(1 << 16)
        while answer:
            length, kind = _HEADER.unpack_from(answer)[:2]
            if kind != _SOCK_DIAG_BY_FAMILY:
                return kind == _DONE
            # inet_diag_msg: four bytes, then the local port in network order.
            ports.add(struct.unpack_from("!H", answer, _HEADER.size + 4)[0])
            answer = answer[(length + 3) & ~3:]

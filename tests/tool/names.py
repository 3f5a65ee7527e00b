"""A name server on loopback with the test's own records."""

import socket
import struct
import threading

from support import DEADLINE

A, AAAA, SRV = 1, 28, 33  # types of records (RFC 1035, RFC 3596, RFC 2782)
NO_ERROR, NAME_ERROR = 0, 3


def labels(name):
    """A name as encoded in a message."""
    parts = [part.encode() for part in name.rstrip(".").split(".") if part]
    return b"".join(bytes([len(part)]) + part for part in parts) + b"\0"


def address(text):
    """The data of an A or AAAA record."""
    return socket.inet_pton(socket.AF_INET6 if ":" in text else socket.AF_INET, text)


def service(priority, weight, port, target):
    """The data of an SRV record."""
    return struct.pack(">HHH", priority, weight, port) + labels(target)


class NameServer:
    """Answers from a table, over UDP; what is not in it does not exist."""

    def __init__(self, test, hosts=None, services=None):
        """`hosts`: names with lists of addresses; `services`: names with lists of `service`s."""
        self._records = {}
        for name, addresses in (hosts or {}).items():
            self._records[name, A] = [address(text) for text in addresses if ":" not in text]
            self._records[name, AAAA] = [address(text) for text in addresses if ":" in text]
        for name, listed in (services or {}).items():
            self._records[name, SRV] = listed
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", 0))
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()
        test.addCleanup(self._stop)

    @property
    def address(self):
        """As --name-servers takes it."""
        return f"127.0.0.1:{self._socket.getsockname()[1]}"

    def _serve(self):
        while True:
            query, peer = self._socket.recvfrom(4096)
            if not query:
                return
            self._socket.sendto(self._answer(query), peer)

    def _answer(self, query):
        end = query.index(b"\0", 12) + 5  # the question: name, type, class
        name, kind = self._question(query[12:end])
        found = self._records.get((name, kind), [])
        exists = any(known == name for known, _ in self._records)
        header = struct.pack(">HHHHHH", int.from_bytes(query[:2], "big"),
                             0x8580 | (NO_ERROR if exists else NAME_ERROR), 1, len(found), 0, 0)
        answers = b"".join(b"\xc0\x0c" + struct.pack(">HHIH", kind, 1, 60, len(data)) + data
                           for data in found)
        return header + query[12:end] + answers

    @staticmethod
    def _question(question):
        parts, at = [], 0
        while question[at]:
            parts.append(question[at + 1:at + 1 + question[at]].decode())
            at += 1 + question[at]
        return ".".join(parts).lower(), int.from_bytes(question[at + 1:at + 3], "big")

    def _stop(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as waking:
            waking.sendto(b"", self._socket.getsockname())
        self._thread.join(DEADLINE)
        self._socket.close()

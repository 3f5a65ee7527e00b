"""Servers that a test stops and starts again, and ones that answer as a test wants: directories, a name
server."""

import os
import select
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import tempfile
import threading
import time
import unittest

from support import DEADLINE, TESTBED, outcome, tlv

BIND, SEARCH, ADD, EXTENDED = 0x60, 0x63, 0x68, 0x77  # tags of requests
BIND_RESPONSE, SEARCH_ENTRY, SEARCH_DONE, EXTENDED_RESPONSE = 0x61, 0x64, 0x65, 0x78

A, AAAA, SRV = 1, 28, 33  # types of records (RFC 1035, RFC 3596, RFC 2782)
NO_ERROR, NAME_ERROR = 0, 3

CLOSE_WAIT = "08"  # in /proc/net/tcp: the peer has closed, we have not


def eventually(condition):
    """Waits until the condition is true; returns whether it became true in time."""
    deadline = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


class Slapd:
    """A directory for one test or one class of tests."""

    def __init__(self, add_cleanup, *options):
        search = os.pathsep.join([os.environ.get("PATH", ""), "/usr/local/sbin", "/usr/sbin"])
        if shutil.which("slapd", path=search) is None and not os.environ.get("CI"):
            raise unittest.SkipTest("slapd is not installed")
        parent = tempfile.mkdtemp(prefix="solvane-tool-")
        add_cleanup(shutil.rmtree, parent)
        self.folder = os.path.join(parent, "slapd")
        add_cleanup(self._run, "stop", self.folder)
        self._run("slapd-start", self.folder, *options)
        self._read_environment()

    @property
    def uri(self):
        return self._environment["LDAP_URI"]

    @property
    def secure_uri(self):
        return self._environment["LDAPS_URI"]

    @property
    def ca_file(self):
        return os.path.join(self.folder, "tls", "ca.pem")

    def stop(self):
        self._run("stop", self.folder, "--keep")

    def start(self):
        self._run("slapd-run", self.folder)
        self._read_environment()

    def kill(self):
        """As a crash would."""
        os.kill(self._pid, signal.SIGKILL)
        if not eventually(lambda: not os.path.exists(f"/proc/{self._pid}")):
            raise AssertionError("slapd does not end")

    def pause(self):
        """Pauses it: the kernel still accepts connections, but there are no answers."""
        os.kill(self._pid, signal.SIGSTOP)

    def resume(self):
        os.kill(self._pid, signal.SIGCONT)

    def has_closed_a_connection(self):
        """A client still holds its end of a connection that this server has closed."""
        port = f":{int(self._environment['LDAP_PORT']):04X}"
        with open("/proc/net/tcp", encoding="ascii") as table:
            rows = [row.split() for row in table]
        return any(row[2].endswith(port) and row[3] == CLOSE_WAIT for row in rows)

    @property
    def _pid(self):
        return int(self._environment["SERVER_PID"])

    def _read_environment(self):
        with open(os.path.join(self.folder, "server.env"), encoding="utf-8") as settings:
            self._environment = dict(line.rstrip("\n").split("=", 1) for line in settings)

    @staticmethod
    def _run(script, *arguments):
        subprocess.run(
            [os.path.join(TESTBED, script), *arguments],
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )


class Request:
    """A whole message of a client."""

    def __init__(self, content):
        self.content = content
        header = 2 if content[1] < 128 else 2 + (content[1] & 0x7F)
        end = header + 2 + content[header + 1]
        self._number = content[header:end]
        self.operation = content[end]

    def answer(self, *operation):
        """A message with the number of this one."""
        return tlv(0x30, self._number, *operation)

    def result(self, tag, code=0, **more):
        return self.answer(outcome(tag, code, **more))

    def entry(self, dn=b"cn=somebody", **attributes):
        listed = [
            tlv(0x30, tlv(0x04, name.encode()), tlv(0x31, *[tlv(0x04, v) for v in values]))
            for name, values in attributes.items()
        ]
        return self.answer(tlv(SEARCH_ENTRY, tlv(0x04, dn), tlv(0x30, *listed)))

    def found(self):
        return self.entry(cn=[b"Somebody"]) + self.result(SEARCH_DONE)

    def empty(self):
        return self.result(SEARCH_DONE)


class Connection:
    """One client, as a script sees it."""

    def __init__(self, peer):
        self._peer = peer
        self._pending = b""
        self.requests = []

    @property
    def operations(self):
        return [request.operation for request in self.requests]

    def receive(self):
        """The next request; None when the client is gone."""
        while not self._is_whole():
            try:
                part = self._peer.recv(65536)
            except OSError:
                part = b""
            if not part:
                return None
            self._pending += part
        size = self._size()
        request = Request(self._pending[:size])
        self._pending = self._pending[size:]
        self.requests.append(request)
        return request

    def send(self, content):
        try:
            self._peer.sendall(content)
        except OSError:
            pass  # the client had enough

    def secure(self, context):
        """Does the handshake of TLS; returns whether the client agreed."""
        plain = socket.socket
        self._peer = context.wrap_socket(
            self._peer, server_side=True, do_handshake_on_connect=False
        )
        try:
            self._peer.do_handshake()
            return True
        except OSError:
            pass
        try:  # a close with unread data would discard the alert on its way
            plain.shutdown(self._peer, socket.SHUT_WR)
            while plain.recv(self._peer, 65536):
                pass
        except OSError:
            pass
        return False

    def close(self):
        self._peer.close()

    def reset(self):
        self._peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._peer.close()

    def has_more(self):
        """Another request is there already, or comes within a moment."""
        readable, _, _ = select.select([self._peer], [], [], 0.2)
        return bool(self._pending or readable)

    def wait_until_closed(self):
        """Takes whatever comes, be it LDAP or not."""
        try:
            while self._peer.recv(65536):
                pass
        except OSError:
            pass

    def _is_whole(self):
        return len(self._pending) >= 2 and len(self._pending) >= self._size()

    def _size(self):
        length = self._pending[1]
        if length < 128:
            return 2 + length
        header = 2 + (length & 0x7F)
        return header + int.from_bytes(self._pending[2:header].ljust(header - 2, b"\xff"), "big")


class Certificates:
    """The files of mkcerts, in a folder that is removed with the test class."""

    def __init__(self, add_cleanup):
        if shutil.which("openssl") is None and not os.environ.get("CI"):
            raise unittest.SkipTest("openssl is not installed")
        self.folder = tempfile.mkdtemp(prefix="solvane-tool-")
        add_cleanup(shutil.rmtree, self.folder)
        subprocess.run([os.path.join(TESTBED, "mkcerts"), self.folder], check=True)

    def file(self, name):
        return os.path.join(self.folder, name)

    def server(self, name="good", ciphers="DEFAULT", at_most=None, demands_certificate=False):
        """The TLS of a server with this certificate, which may be weak, up to this version."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.set_ciphers(ciphers + "@SECLEVEL=0")
        context.load_cert_chain(self.file(name + ".pem"), self.file(name + ".key"))
        if at_most is not None:
            context.maximum_version = at_most
        if demands_certificate:
            context.load_verify_locations(self.file("ca.pem"))
            context.verify_mode = ssl.CERT_REQUIRED
        return context


class ScriptedDirectory:
    """Plays a script on each connection, and hangs up when the script returns."""

    def __init__(self, test, script, tls=None):
        """`tls`: of an ldaps:// server, an ssl.SSLContext."""
        self.connections = []
        self._script = script
        self._tls = tls
        self._sockets = []
        self._threads = []
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._last_client = None  # an address
        self._acceptor = threading.Thread(target=self._accept)
        self._acceptor.start()
        test.addCleanup(self._stop)

    @property
    def uri(self):
        scheme = "ldap" if self._tls is None else "ldaps"
        return f"{scheme}://127.0.0.1:{self._listener.getsockname()[1]}"

    def finish(self):
        """Returns once everything is in `connections` that clients sent; they have ended."""
        with socket.socket() as last:  # accepted after all others
            last.bind(("127.0.0.1", 0))
            self._last_client = last.getsockname()
            last.connect(self._listener.getsockname())
            self._join()

    def count(self, operation):
        return sum(connection.operations.count(operation) for connection in self.connections)

    def _accept(self):
        while True:
            try:
                peer, address = self._listener.accept()
            except OSError:
                return
            if address == self._last_client:
                peer.close()
                return
            peer.settimeout(DEADLINE)
            self._sockets.append(peer)
            self.connections.append(Connection(peer))
            self._threads.append(threading.Thread(target=self._play, args=self.connections[-1:]))
            self._threads[-1].start()

    def _play(self, connection):
        try:
            if self._tls is None or connection.secure(self._tls):
                self._script(connection)
        finally:
            connection.close()

    def _stop(self):
        # Wakes a blocked accept(); close() alone does not.
        for waiting in [self._listener, *self._sockets]:
            try:
                waiting.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        self._join()
        self._listener.close()

    def _join(self):
        self._acceptor.join(DEADLINE)  # it begins the others
        for thread in self._threads:
            thread.join(DEADLINE)


def granted(request):
    return request.result(BIND_RESPONSE)


def serving(on_search, identity=b"dn:cn=reader", on_bind=granted):
    """A script: answers each bind and search with the bytes that the two functions make of it, or
    hangs up where that is None; and says that the client is `identity`."""

    def script(connection):
        while (request := connection.receive()) is not None:
            if request.operation == BIND:
                answer = on_bind(request)
            elif request.operation == EXTENDED:
                answer = request.answer(
                    tlv(
                        EXTENDED_RESPONSE,
                        tlv(0x0A, b"\0"),
                        tlv(0x04, b""),
                        tlv(0x04, b""),
                        tlv(0x8B, identity),
                    )
                )
            elif request.operation == SEARCH:
                answer = on_search(request)
            else:
                continue  # an unbind, or an abandon
            if answer is None:
                return
            connection.send(answer)

    return script


def giving(*answers):
    """A script: gives the requests these answers, in their order, and then none."""

    def script(connection):
        if give(connection, answers):
            silent(connection)

    return script


def hanging_up_after(*answers):
    """A script: gives the requests these answers, in their order, and hangs up at the next one."""

    def script(connection):
        if give(connection, answers):
            connection.receive()

    return script


def give(connection, answers):
    """Gives requests these answers; returns whether the client stayed for all of them."""
    for answer in answers:
        if connection.receive() is None:
            return False
        connection.send(answer)
    return True


def silent(connection):
    """A script: receives requests and stays silent."""
    while connection.receive() is not None:
        pass


def labels(name):
    """A name as it stands in a message."""
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
        header = struct.pack(
            ">HHHHHH",
            int.from_bytes(query[:2], "big"),
            0x8580 | (NO_ERROR if exists else NAME_ERROR),
            1,
            len(found),
            0,
            0,
        )
        answers = b"".join(
            b"\xc0\x0c" + struct.pack(">HHIH", kind, 1, 60, len(data)) + data for data in found
        )
        return header + query[12:end] + answers

    @staticmethod
    def _question(question):
        parts, at = [], 0
        while question[at]:
            parts.append(question[at + 1 : at + 1 + question[at]].decode())
            at += 1 + question[at]
        return ".".join(parts).lower(), int.from_bytes(question[at + 1 : at + 3], "big")

    def _stop(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as waking:
            waking.sendto(b"", self._socket.getsockname())
        self._thread.join(DEADLINE)
        self._socket.close()

"""What the tests of the service share: a running service, and clients of its protocols."""

import base64
import os
import signal
import socket
import subprocess
import threading

from servers import eventually
from support import DEADLINE, PEOPLE, READER, READER_PASSWORD

LDAPD = os.environ["SOLVANE_LDAPD"]

NEW = "ou=new,dc=corp,dc=test"

# The mail addresses of a group's members, and of the groups' in it.
GROUPS = f"""
query_filter = (mail=$m)
search_base = {NEW}
special_result_attribute = member
leaf_result_attribute = mail
"""


def netstring(text):
    content = text if isinstance(text, bytes) else text.encode()
    return b"%d:%s," % (len(content), content)


def add_entries(uri, ldif):
    """Adds entries below NEW."""
    subprocess.run(
        ["ldapadd", "-x", "-H", uri, "-D", READER, "-w", READER_PASSWORD],
        input=ldif.encode(),
        check=True,
        capture_output=True,
        timeout=DEADLINE,
    )


def group(name, *members):
    """The LDIF of a group below NEW; a member is the number of a user, or the name of a group."""
    lines = [
        f"dn: cn={name},{NEW}",
        "objectClass: groupOfNames",
        "objectClass: extensibleObject",
        f"cn: {name}",
        f"mail: {name}@corp.test",
    ]
    for member in members:
        dn = f"uid=user{member:07d},{PEOPLE}" if isinstance(member, int) else f"cn={member},{NEW}"
        lines.append(f"member: {dn}")
    return "\n".join(lines) + "\n\n"


class Client:
    """A connection to a socket of the service."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(DEADLINE)
        self.socket.connect(path)
        self._pending = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, content):
        self.socket.sendall(content)

    def is_closed(self):
        """Waits for the end of the connection; what comes before it is read."""
        try:
            while self.socket.recv(65536):
                pass
        except ConnectionResetError:
            pass
        return True

    def read_until(self, end):
        while end not in self._pending:
            part = self.socket.recv(65536)
            if not part:
                raise EOFError(self._pending)
            self._pending += part
        text, _, self._pending = self._pending.partition(end)
        return text

    def read_netstring(self):
        length = int(self.read_until(b":"))
        while len(self._pending) <= length:
            part = self.socket.recv(65536)
            if not part:
                raise EOFError(self._pending)
            self._pending += part
        content, self._pending = self._pending[:length], self._pending[length + 1 :]
        return content.decode()

    def ask(self, map_name, key):
        self.send(netstring(f"{map_name} {key}"))
        return self.read_netstring()


class AuthClient(Client):
    """A mail server that asks for logins."""

    def __init__(self, path):
        super().__init__(path)
        self.greeting = self.read_until(b"DONE\n").decode()
        self.send(b"VERSION\t1\t2\nCPID\t1\n")

    def line(self):
        return self.read_until(b"\n").decode()

    def begin(self, user, password, number=1, parameters="secured\trip=192.0.2.1"):
        """Sends a login, without waiting for its result."""
        response = base64.b64encode(f"\0{user}\0{password}".encode()).decode()
        self.send(f"AUTH\t{number}\tPLAIN\tservice=smtp\t{parameters}\tresp={response}\n".encode())

    def plain(self, user, password, number=1, parameters="secured\trip=192.0.2.1"):
        self.begin(user, password, number, parameters)
        return self.line()


class Service:
    """A running service with settings of its own."""

    def __init__(self, test, uri, service="", maps=None, arguments=(), is_started=True, **common):
        """`maps`: the settings of each; `common`: what all maps share."""
        self.test = test
        self.folder = os.path.join(test.folder, "etc")
        os.makedirs(os.path.join(self.folder, "maps"), exist_ok=True)
        self.users_path = os.path.join(test.folder, "socketmap")
        self.auth_path = os.path.join(test.folder, "auth")
        self.stats_path = os.path.join(test.folder, "stats")
        self.common = {
            "server_host": uri,
            "bind_dn": READER,
            "bind_pw": READER_PASSWORD,
            "search_base": PEOPLE,
            "deadline": "10",
            **common,
        }
        self.write_service(service)
        users = "query_filter = (mail=$m)\nresult_attribute = uid\n"
        for name, text in (maps or {"users": users}).items():
            self.write_map(name, text)
        self.lines = []
        self._arguments = arguments
        self.process = self._reader = None
        if is_started:
            self.start()

    def write_service(self, text, has_logins=True):
        logins = f"listen_auth = unix:{self.auth_path}\nauth_map = users\n" if has_logins else ""
        with open(os.path.join(self.folder, "service.conf"), "w", encoding="utf-8") as file:
            file.write(
                f"listen_socketmap = unix:{self.users_path}\n"
                f"stats_socket = unix:{self.stats_path}\n{logins}{text}"
            )

    def write_map(self, name, text):
        self.write_common(**self.common)
        path = os.path.join(self.folder, "maps", f"{name}.conf")
        with open(path, "w", encoding="utf-8") as file:
            file.write("include = ../common.settings\n" + text)
        os.chmod(path, 0o640)

    def write_common(self, **settings):
        path = os.path.join(self.folder, "common.settings")
        with open(path, "w", encoding="utf-8") as file:
            file.write("".join(f"{name} = {value}\n" for name, value in settings.items()))
        os.chmod(path, 0o640)

    def start(self, **options):
        before = self.count("serving")
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen(
            [LDAPD, "-C", self.folder, *self._arguments],
            stderr=subprocess.PIPE,
            text=True,
            **options,
        )
        self._reader = threading.Thread(target=self._read, args=(self.process,))
        self._reader.start()
        self.test.addCleanup(self.kill)
        self.await_line("serving", before + 1)

    def _read(self, process):
        with process.stderr:
            for line in process.stderr:
                self.lines.append(line.rstrip("\n"))

    def count(self, *words):
        """The number of lines so far that have one of these words. More may be on their way."""
        return sum(any(word in line for word in words) for line in self.lines)

    def await_line(self, words, count=1):
        """Lines arrive some time after the replies of the service: wait for them."""
        if not eventually(lambda: self.count(words) >= count or self.process.poll() is not None):
            raise AssertionError(f"no line has '{words}': {self.lines}")
        if self.process.poll() is not None:
            self._reader.join(DEADLINE)  # its last lines too
        if self.count(words) < count:
            raise AssertionError(f"the service has ended: {self.lines}")

    def reload(self):
        """Returns once the service has read its settings, or refused them."""
        before = self.count("anew", "in use stay")
        self.process.send_signal(signal.SIGHUP)
        if not eventually(lambda: self.count("anew", "in use stay") > before):
            raise AssertionError(self.lines)

    def stop(self):
        """Returns the exit status. `lines` are complete then: what they lack was not written."""
        self.process.terminate()
        status = self.process.wait(DEADLINE)
        self._reader.join(DEADLINE)
        return status

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(DEADLINE)

    def check(self, **options):
        return subprocess.run(
            [LDAPD, "-C", self.folder, "--check"],
            **options,
            capture_output=True,
            text=True,
            timeout=DEADLINE,
            check=False,
        )

    def client(self):
        client = Client(self.users_path)
        self.test.addCleanup(client.socket.close)
        return client

    def auth_client(self):
        client = AuthClient(self.auth_path)
        self.test.addCleanup(client.socket.close)
        return client

    def ask(self, map_name, key):
        with Client(self.users_path) as client:
            return client.ask(map_name, key)

    def stats(self):
        """The metrics, by name with labels."""
        with Client(self.stats_path) as client:
            client.send(b"GET /metrics HTTP/1.0\r\n\r\n")
            client.read_until(b"\r\n\r\n")
            text = b"".join(iter(lambda: client.socket.recv(65536), b""))
            text = (client._pending + text).decode()  # pylint: disable=protected-access
        lines = [line for line in text.splitlines() if not line.startswith("#")]
        return {name: float(value) for name, _, value in (line.rpartition(" ") for line in lines)}

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

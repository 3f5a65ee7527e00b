"""The service beside Postfix's own LDAP table, asked by 1, 10 and 100 clients at once.

The same clients (peers/table_clients.c) ask the service by socketmap, and Postfix's proxymap, which all
of its processes share. For the target, 100 processes of postmap ask: their own LDAP tables, or the
service. Postfix's master is started with proxymap alone: no mail server runs.
"""

import os
import shutil
import socket
import subprocess
import time

from bulk_lookups import ATTRIBUTE, BASE, DEADLINE, PASSWORD, READER, WrongAnswer

MASTER = "proxymap unix - - n - - proxymap\npostlog unix-dgram n - n - 1 postlogd\n"
PROCESSES = 100
CONNECTIONS = 8  # of the service, at the most


class Peers:
    """The service and Postfix, with the same table."""

    def __init__(self, build, folder, port):
        self._build, self._port = build, port
        self._folder = os.path.join(folder, "service")
        os.makedirs(os.path.join(self._folder, "maps"))
        os.chmod(folder, 0o755)
        self.socketmap = os.path.join(self._folder, "socketmap")
        self.proxymap = None
        self.table = self._write(
            "table.cf",
            f"server_host = ldap://127.0.0.1:{port}\nversion = 3\n"
            f"search_base = {BASE}\nquery_filter = (mail=%s)\n"
            f"result_attribute = {ATTRIBUTE}\nbind = yes\n"
            f"bind_dn = {READER}\nbind_pw = {PASSWORD}\n",
            0o644,  # proxymap is another user
        )
        self._write(
            "maps/users.conf",
            f"server_host = ldap://127.0.0.1:{port}\nbind_dn = {READER}\nbind_pw = {PASSWORD}\n"
            f"search_base = {BASE}\nquery_filter = (mail=$m)\nresult_attribute = {ATTRIBUTE}\n"
            f"connections = {CONNECTIONS}\n",
        )
        self._write("service.conf", f"listen_socketmap = unix:{self.socketmap}\n")
        self._service = None
        self._etc = None

    def _write(self, name, text, mode=0o600):
        path = os.path.join(self._folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="ascii") as opened:
            opened.write(text)
        os.chmod(path, mode)
        return path

    def __enter__(self):
        # pylint: disable=consider-using-with
        self._service = subprocess.Popen(
            [os.path.join(self._build, "service", "solvane-ldapd"), "-C", self._folder],
            stderr=subprocess.DEVNULL,
        )
        self._await(self.socketmap)
        if os.getuid() == 0 and shutil.which("postfix"):
            self._start_postfix()
        return self

    def __exit__(self, *_):
        self._service.terminate()
        self._service.wait(DEADLINE)
        if self._etc is not None:
            subprocess.run(["postfix", "-c", self._etc, "stop"], check=False, capture_output=True)

    @staticmethod
    def _await(path):
        deadline = time.monotonic() + DEADLINE
        while True:
            with socket.socket(socket.AF_UNIX) as probe:
                if probe.connect_ex(path) == 0:
                    return
            if time.monotonic() > deadline:
                raise WrongAnswer(f"nobody listens on {path}")
            time.sleep(0.02)

    def _start_postfix(self):
        root = os.path.join(self._folder, "postfix")
        self._etc = os.path.join(root, "etc")
        for name in ("etc", "spool", "data"):
            os.makedirs(os.path.join(root, name))
        shutil.chown(os.path.join(root, "data"), "postfix")
        for name in ("dynamicmaps.cf", "postfix-files"):
            shutil.copy(os.path.join("/etc/postfix", name), self._etc)
        for name in ("dynamicmaps.cf.d", "postfix-files.d"):
            if os.path.isdir(os.path.join("/etc/postfix", name)):
                shutil.copytree(os.path.join("/etc/postfix", name), os.path.join(self._etc, name))
        self._write("postfix/etc/master.cf", MASTER, 0o644)
        self._write(
            "postfix/etc/main.cf",
            "compatibility_level = 3.6\nmail_owner = postfix\nsetgid_group = postdrop\n"
            f"queue_directory = {root}/spool\ndata_directory = {root}/data\n"
            f"meta_directory = {self._etc}\nmaillog_file = {root}/log\n"
            f"maillog_file_prefixes = {root}\nmyhostname = mx.corp.test\n"
            "inet_interfaces = loopback-only\ninet_protocols = ipv4\n"
            f"proxy_read_maps = proxy:ldap:{self.table}\n",
            0o644,
        )
        done = subprocess.run(
            ["postfix", "-c", self._etc, "start"], check=False, capture_output=True, text=True
        )
        if done.returncode != 0:
            raise WrongAnswer(f"Postfix does not start: {done.stderr}")
        self.proxymap = os.path.join(root, "spool", "private", "proxymap")
        self._await(self.proxymap)

    def connections(self):
        """Those to the directory, of any process."""
        with open("/proc/net/tcp", encoding="ascii") as table:
            rows = [row.split() for row in table]
        return sum(row[2].endswith(f":{self._port:04X}") and row[3] == "01" for row in rows)

    def ask(self, protocol, clients, keys):
        """A turn of so many clients in one process."""
        path, table = (
            (self.proxymap, "ldap:" + self.table)
            if protocol == "proxymap"
            else (self.socketmap, "users")
        )
        text = "".join(f"{key}\t{value}\n" for key, value in keys.answers)
        done = subprocess.run(
            [
                os.path.join(self._build, "bench", "solvane_bench_table_clients"),
                protocol,
                path,
                table,
                str(clients),
            ],
            input=text,
            stdout=subprocess.PIPE,
            text=True,
            timeout=DEADLINE,
            check=False,
        )
        if done.returncode != 0:
            raise WrongAnswer(f"{protocol} gave a wrong answer")
        operations, seconds, median, most = done.stdout.split()
        return {
            "operations": int(operations),
            "seconds": float(seconds),
            "p50": float(median),
            "p99": float(most),
            "connections": self.connections(),
        }

    def postmaps(self, table, processes, keys):
        """A turn of so many processes of postmap, with the same keys each."""
        begin = time.monotonic()
        running = [
            subprocess.Popen(
                [
                    "postmap",
                    "-c",
                    self._folder if self._etc is None else self._etc,
                    "-q",
                    "-",
                    table,
                ],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
            )
            for _ in range(processes)
        ]
        for process in running:  # less than a pipe holds, so that no process waits for another
            process.stdin.write(keys.text)
            process.stdin.close()
        connections, outputs = 0, []
        for process in running:
            connections = max(connections, self.connections())
            outputs.append(process.stdout.read())
            process.wait(DEADLINE)
            process.stdout.close()
        seconds = time.monotonic() - begin
        expected = "".join(f"{key}\t{value}\n" for key, value in keys.answers).encode()
        if any(output != expected for output in outputs):
            raise WrongAnswer(f"postmap gave a wrong answer from {table}")
        return {
            "operations": processes * len(keys.addresses),
            "seconds": seconds,
            "connections": connections,
        }


def compare(rounds, peers, keys, few_keys, record):
    """Each contender's turns; those of 100 processes look fewer keys up each."""
    contenders = [
        ("service", lambda clients: peers.ask("socketmap", clients, keys)),
        ("proxymap", lambda clients: peers.ask("proxymap", clients, keys)),
    ]
    if peers.proxymap is None:
        contenders.pop()
    for number in range(rounds):
        for clients in (1, 10, 100):
            for name, work in contenders if number % 2 == 0 else reversed(contenders):
                record(
                    {"row": "table", "contender": name, "size": clients, "round": number}
                    | work(clients)
                )
        for name, table in (
            ("service", f"socketmap:unix:{peers.socketmap}:users"),
            ("ldap", "ldap:" + peers.table),
        ):
            record(
                {"row": "postmap", "contender": name, "size": PROCESSES, "round": number}
                | peers.postmaps(table, PROCESSES, few_keys)
            )

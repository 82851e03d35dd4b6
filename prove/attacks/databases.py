"""Attacks on the two databases: hostile files and killed writers where the mail-authentication
records are kept, odd servers in place of the panel's.
"""

import os
import signal
import socket
import struct
import subprocess
import threading
import time
from pathlib import Path

from attackworld import DATABASE, MISSING, SECRET, VICTIM, Broken, remove

SERVER = Path("/run/mysqld/mysqld.sock")
PASSWORD = Path("/etc/kra/.kra.shadow")
# Connecting may take 10 seconds and an answer 30, for each of a handful of queries.
PATIENCE = 200


def planted_database(world):
    """a FIFO or a link in the place of the database"""
    for kind in ("link", "dangling link", "FIFO"):
        for verb in ("look-up", "change-mailbox", "lay-out-mailboxes"):
            world.reset()
            if kind == "FIFO":
                world.as_postfix(lambda: os.mkfifo(DATABASE, 0o666))
            else:
                world.as_postfix(lambda kind=kind: DATABASE.symlink_to(VICTIM if kind == "link" else MISSING))
            ended = world.library(verb)
            world.expect_unharmed()
            if verb == "lay-out-mailboxes":
                world.expect(b"\n1 succeeded" in ended.text, f"{kind}: no new database: {ended}")
            else:
                world.expect(b"Unable to open database" in ended.text, f"{kind}, {verb}: {ended}")


def killed_writer(world):
    """a writer is killed again and again during look-ups"""
    world.reset()
    ended = world.library("lay-out-mailboxes")
    world.expect(b"\n1 succeeded" in ended.text, f"no database: {ended}")
    killed, stop = [0], threading.Event()

    def kill_writers():
        program = str(world.helpers / "attack_library_program")
        while not stop.is_set():
            writer = subprocess.Popen([program, "change-mailbox", "100000"], stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL)
            # Killed at a different moment each time; nothing depends on what it has done by then.
            time.sleep(0.01 + (killed[0] % 17) * 0.001)
            writer.send_signal(signal.SIGKILL)
            writer.wait()
            killed[0] += 1
    thread = threading.Thread(target=kill_writers)
    thread.start()
    try:
        ended = world.library("look-up", world.count(2000, 40000), limit=600)
    finally:
        stop.set()
        thread.join()
    last = ended.text.decode().strip().splitlines()[-1]
    world.expect(" 0 failed" in last, f"beside {killed[0]} killed writers: {ended}")
    return f"{killed[0]} writers killed, {last}"


class Server:
    """A server at the socket of the panel's database, which calls `serve` for each client."""

    def __init__(self, serve):
        SERVER.parent.mkdir(exist_ok=True)
        remove(SERVER)
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(SERVER))
        SERVER.chmod(0o777)
        self._listener.listen(16)
        self._serve, self._open = serve, []
        self.asked = 0
        self._thread = threading.Thread(target=self._accept, daemon=True)
        PASSWORD.parent.mkdir(exist_ok=True)
        PASSWORD.write_text("secret\n")

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for connection in self._open:
            connection.close()
        self._thread.join()
        remove(SERVER)
        remove(PASSWORD)

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self.asked += 1
            self._open.append(connection)
            threading.Thread(target=self._talk, args=(connection,), daemon=True).start()

    def _talk(self, connection):
        try:
            self._serve(connection)
        except OSError:
            pass


def packet(number, payload):
    return struct.pack("<I", len(payload))[:3] + bytes([number]) + payload


def log_in(connection):
    """Logs the client in: sends a greeting, reads any answer, sends "OK"."""
    greeting = (b"\x0a5.5.5-10.11.6\0" + struct.pack("<I", 1) + b"12345678\0" + struct.pack("<H", 0xF7FF) + b"\x08" +
                struct.pack("<HH", 2, 0x000F) + b"\x15" + bytes(10) + b"123456789012\0" + b"mysql_native_password\0")
    connection.sendall(packet(0, greeting))
    connection.recv(65536)
    connection.sendall(packet(2, b"\0\0\0\x02\0\0\0"))


def say_nothing(connection):
    connection.recv(1)


def say_nothing_after_the_login(connection):
    log_in(connection)
    while connection.recv(65536):
        pass


def babble(connection):
    connection.sendall(packet(0, b"\x7f" + os.urandom(1000)))


def babble_and_wait(connection):
    """Announces a longer packet than it sends, and then waits."""
    connection.sendall(b"\xff\xff\x7f\0" + os.urandom(1 << 16))
    connection.recv(1)


def babble_without_end(connection):
    while True:
        connection.sendall(packet(0, b"\x0a" + os.urandom(65000)))


def babble_after_the_login(connection):
    log_in(connection)
    while connection.recv(65536):
        connection.sendall(os.urandom(4096))


def ask_for_a_file(connection):
    """Any query may be answered with the request for a file of the client's."""
    log_in(connection)
    while connection.recv(65536):
        connection.sendall(packet(1, b"\xfb" + os.fsencode(VICTIM)))
        handed_over.append(connection.recv(65536))
        connection.sendall(packet(handed_over[-1][3] + 1, b"\0\0\0\x02\0\0\0"))


handed_over = []  # what a client has answered to that


def hang_up(connection):
    connection.close()


def odd_server(world, serve, whole_run):
    """A run is complete without the database; a library program is told that it failed."""
    world.reset()
    with Server(serve) as server:
        ended = world.run(limit=PATIENCE) if whole_run else world.library("ask-panel", limit=PATIENCE)
    if whole_run:
        world.expect_complete(ended)
    else:
        world.expect(b"\n0 succeeded, 1 failed" in ended.text, f"{serve.__name__}: {ended}")
    if server.asked == 0:
        raise Broken(f"{serve.__name__}: the server was never asked: {ended}")


def mute_server(world):
    """a server that accepts and says nothing"""
    odd_server(world, say_nothing, False)
    if not world.short:
        odd_server(world, say_nothing, True)
        odd_server(world, say_nothing_after_the_login, False)
        odd_server(world, say_nothing_after_the_login, True)


def babbling_server(world):
    """a server that sends garbage, ends at once, never ends"""
    for serve in world.some(babble, hang_up, rest=[babble_without_end, babble_and_wait, babble_after_the_login]):
        odd_server(world, serve, False)
        if not world.short:
            odd_server(world, serve, True)


def greedy_server(world):
    """a server that asks for a file which only root may read"""
    handed_over.clear()
    odd_server(world, ask_for_a_file, False)
    if not world.short:
        odd_server(world, ask_for_a_file, True)
    world.expect(handed_over, "the client was never asked")
    world.expect(not any(SECRET.strip() in bytes_ for bytes_ in handed_over), "the client has sent it")


ATTACKS = [("mail-authentication database", attack) for attack in (planted_database, killed_writer)]
ATTACKS += [("panel's database", attack) for attack in (mute_server, babbling_server, greedy_server)]

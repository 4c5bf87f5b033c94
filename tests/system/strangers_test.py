#!/usr/bin/env python3
"""What strangers can consume: attacks come from 127.0.0.1, while a viewer at 127.0.0.2 watches and must
miss no packet. Usage: strangers_test.py KAVO_PUBLISH [SECONDS of everything at once]"""
import contextlib
import socket
import sys
import threading
import time

from publisher import Client, Publisher, UdpClient, until

PUBLISH = sys.argv[1]
SECONDS = float(sys.argv[2]) if len(sys.argv) > 2 else 2
STRANGER, FRIEND, THIRD = "127.0.0.1", "127.0.0.2", "127.0.0.3"


class Host(Publisher):
    def __init__(self, policy=None):
        super().__init__(PUBLISH, policy=policy)
        self.at_rest = self.descriptors()


class Viewer(UdpClient):
    """Counts frames and missing packets."""

    def __init__(self, host, source=FRIEND, user=None):
        super().__init__(host, source, user)
        self.start()
        self.rtp.settimeout(0.2)
        self.pictures = self.missing = 0
        self.watches = True
        self.thread = threading.Thread(target=self.watch, daemon=True)
        self.thread.start()

    def watch(self):
        last = None
        while self.watches:
            with contextlib.suppress(TimeoutError):
                packet = self.rtp.recv(65536)
                sequence = packet[2] << 8 | packet[3]
                self.missing += (sequence - last - 1) % 65536 if last is not None else 0
                last = sequence
                self.pictures += packet[1] >> 7

    def sees(self, pictures=10):
        goal = self.pictures + pictures
        until(lambda: self.pictures >= goal, "no picture comes")

    def end(self):
        self.watches = False
        self.thread.join()


# The attacks, and what limits each.

def descriptors_of_ghosts_and_connections(host):
    """Half of the descriptors are left to the host. An address with many connections loses some, a quiet one none."""
    quiet = Client(host, FRIEND)
    for _ in range(32):
        client = Client(host, STRANGER)
        for n in range(4):
            client.session = None
            client.set_up(f"RTP/AVP;unicast;client_port={40000 + 2 * n}-{40001 + 2 * n}")
        client.socket.close()
    crowd = []
    for _ in range(200):
        with contextlib.suppress(ConnectionError):
            crowd.append(Client(host, STRANGER))
            crowd[-1].ask("OPTIONS")
        assert host.descriptors() - host.at_rest <= 128, host.descriptors()
    assert quiet.ask("OPTIONS") == 200


def places_held_without_watching(host):
    """An address with few connections finds a place."""
    crowd = []
    for _ in range(150):
        with contextlib.suppress(ConnectionError):
            crowd.append(Client(host, STRANGER))
            crowd[-1].set_up()
    newcomer = Viewer(host, THIRD)
    newcomer.sees()
    newcomer.end()


def pipelined_requests(host):
    """Other connections have their turn after eight requests of one."""
    for request in (b"OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n", b"NONSENSE * RTSP/1.0\r\nCSeq: 1\r\n\r\n", b"$\x09\x00\x04junk"):
        crowd = [Client(host, STRANGER) for _ in range(16)]
        for client in crowd:
            client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        for attempt in range(20):
            for client in crowd:
                client.socket.sendall(request * 400)
            assert Client(host, THIRD).ask("OPTIONS") == 200
            if request[:1] == b"$":
                break
            answers = 0
            for client in crowd:
                with contextlib.suppress(BlockingIOError):
                    answers += client.socket.recv(1 << 20, socket.MSG_DONTWAIT).count(b"CSeq")
            if answers < 16 * 400:
                break
            assert attempt < 19, "a newcomer was answered after all of it"


def wrong_passwords(host):
    """At most ten a second are checked."""
    guesser = Client(host, STRANGER, ("anna", "guess"))
    for _ in range(8):
        guesser.ask("DESCRIBE")


ATTACKS = (descriptors_of_ghosts_and_connections, places_held_without_watching, pipelined_requests)


def everything_at_once(host):
    """All attacks again and again, on threads of their own, and 512 connections that are held open."""
    end = time.monotonic() + SECONDS
    faults = []

    def repeat(attack):
        while time.monotonic() < end:
            try:
                attack(host)
            except OSError:  # evicted
                pass
            except Exception as fault:
                faults.append(fault)
                return

    def crowd(host):
        held = []
        for _ in range(512):
            with contextlib.suppress(OSError):
                held.append(Client(host, STRANGER))

    threads = [threading.Thread(target=repeat, args=(attack,)) for attack in (*ATTACKS, wrong_passwords, crowd)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not faults, faults


def attacks():
    for attack in (*ATTACKS, everything_at_once):
        with Host() as host:
            viewer = Viewer(host)
            viewer.sees()
            attack(host)
            viewer.sees()
            viewer.end()
            assert viewer.missing == 0, f"{viewer.missing} packets missing: {attack.__name__}"


USERS = '[access.users]\nanna = "secret"\nbob = "other"\n'
ANNA, BOB = ("anna", "secret"), ("bob", "other")


def passwords():
    with Host(USERS) as host:
        guesser = Client(host, STRANGER, ("anna", "guess"))
        assert guesser.ask("DESCRIBE") == 401
        for _ in range(8):
            assert guesser.ask("DESCRIBE") == 401
        assert guesser.is_closed()
        # After ten wrong passwords in a second, even the right one is not checked.
        def is_braked():
            anna = Client(host, STRANGER, ANNA)
            assert anna.ask("DESCRIBE") == 401
            for _ in range(2):
                guesser = Client(host, STRANGER, ("anna", "guess"))
                for _ in range(7):
                    guesser.ask("DESCRIBE")
            return anna.ask("DESCRIBE") == 401
        assert any(is_braked() for _ in range(3)), "passwords are tried without a brake"
        friend = Client(host, FRIEND, ANNA)
        assert friend.ask("DESCRIBE") == 401
        assert friend.ask("DESCRIBE") == 200, "another address is not held up"
        # The header must name the URI of its request.
        for uri in ("", "x", f"rtsp://127.0.0.1:{host.port}/other"):
            other = Client(host, THIRD, ANNA)
            other.ask("DESCRIBE")
            assert other.ask("DESCRIBE", uri=uri) == 401, uri
        # A session belongs to its user, even from the same address.
        watcher = Viewer(host, FRIEND, ANNA)
        bob, nobody = Client(host, FRIEND, BOB), Client(host, FRIEND)
        bob.ask("DESCRIBE")
        bob.session = nobody.session = watcher.session
        assert bob.ask("TEARDOWN") == 454
        for method in ("PLAY", "PAUSE", "TEARDOWN", "GET_PARAMETER"):
            assert nobody.ask(method) == 401 and "WWW-Authenticate: Digest realm=" in nobody.response, nobody.response
        watcher.sees()
        watcher.end()


def who_may_not_watch_turns_nobody_out():
    with Host(USERS + "[server]\nmax_viewers = 1\n") as host:
        viewer = Viewer(host, FRIEND, ANNA)
        viewer.socket.close()
        for _ in range(3):
            assert Client(host, STRANGER).set_up() == 401
            assert Client(host, STRANGER, BOB).set_up("RAW/RAW/UDP") == 461
            assert Client(host, STRANGER, BOB).set_up(path="nothing") == 404
        viewer.sees()
        viewer.end()
    with Host("[server]\nmax_viewers_per_address = 1\n") as host:
        lost = Viewer(host, FRIEND)
        lost.socket.close()
        until(lambda: Client(host, FRIEND).set_up() == 200, "its own lost session keeps it out")
        lost.end()


def what_players_write():
    with Host() as host:
        for path in ("kavo", "kavo/", "kavo?transportmode=unicast", "kavo/?a=b/c"):
            client = Client(host, FRIEND)
            assert client.ask("DESCRIBE", path, "Accept: application/sdp\r\n") == 200, path
            assert client.set_up(path=path) == 200, path
            assert client.ask("PLAY", path) == 200, path
            assert client.ask("GET_PARAMETER", path) == 200 and client.body == b"", path
            assert client.ask("TEARDOWN", path) == 200, path
        client = Client(host, FRIEND)
        for path in ("kavo/other", "other/kavo", "kav", "kavo//", "?kavo"):
            assert client.ask("DESCRIBE", path) == 404, path
        for header in ("Require", "Proxy-Require"):
            assert client.ask("OPTIONS", headers=f"{header}: com.example.option\r\n") == 551
            assert "Unsupported: com.example.option" in client.response
        assert client.ask("OPTIONS", version="RTSP/2.0") == 505
        assert client.ask("DESCRIBE", headers="Accept: text/html\r\n") == 406
        assert client.ask("DESCRIBE", headers="Accept: text/html, */*\r\n") == 200
        assert client.ask("GET_PARAMETER", "*") == 200 and client.body == b""
    with Host(USERS) as host:
        for path in ("kavo/", "kavo?x=y"):
            client = Client(host, FRIEND, ANNA)
            assert client.ask("DESCRIBE", path) == 401 and client.ask("DESCRIBE", path) == 200, path


def the_policy_is_read_again():
    with Host('[access]\nallow = ["127.0.0.0/8"]\n') as host:
        friend = Viewer(host, FRIEND)
        third = Viewer(host, THIRD)
        host.write("[access]\nallow = 5\n")
        until(lambda: "stays as it was" in host.said(), "a wrong file passes unnoticed")
        friend.sees()
        host.write('[access]\nallow = ["127.0.0.2"]\n[delivery]\nmax_packet = 600\n')
        until(lambda: "wait for the next KV_INIT" in host.said(), "what cannot change passes unnoticed")
        assert third.is_closed()
        friend.sees()
        count = third.pictures
        friend.sees()
        assert third.pictures <= count + 1
        host.write(USERS)
        def is_asked():
            with contextlib.suppress(ConnectionError):
                return Client(host, THIRD).ask("DESCRIBE") == 401
        until(is_asked, "nobody is asked for a password")
        count = friend.pictures
        anna = Viewer(host, THIRD, ANNA)
        anna.sees()
        assert friend.pictures <= count + 1, "it has no user"
        for viewer in (friend, third, anna):
            viewer.end()


for case in (attacks, passwords, who_may_not_watch_turns_nobody_out, what_players_write, the_policy_is_read_again):
    case()
    print(f"{case.__name__}: passed", flush=True)

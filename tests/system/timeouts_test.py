#!/usr/bin/env python3
"""Which sessions end because they are silent, idle or stalled, which do not, and what becomes of RTP time where the
wall clock is set. Only the publisher's clock advances, so the test does not wait.
Usage: timeouts_test.py KAVO_PUBLISH CLOCK_SHIM CODEC"""
import concurrent.futures
import select
import socket
import struct
import sys
import time

from publisher import Client, Publisher, UdpClient

PROGRAM, SHIM, CODEC = sys.argv[1:]


class Host(Publisher):
    def __init__(self):
        super().__init__(PROGRAM, CODEC, clock_shim=SHIM)
        self.passed = 0

    def let_pass(self, seconds, meanwhile=lambda: None, step=10):
        """Calls meanwhile() after each step. When it returns, the event loop has processed everything."""
        for _ in range(0, seconds, step):
            meanwhile()
            Client(self).ask("OPTIONS")  # answered after everything sent before
            self.passed += step
            self.set_clocks(0, self.passed)
            Client(self).ask("OPTIONS")

    def knows(self, session, host="127.0.0.1"):
        """Whether it answers the session's requests, which must come from the address that set it up."""
        other = Client(self, host=host)
        other.session = session
        return other.ask("OPTIONS") == 200


def without_a_connection_a_viewer_lives_by_answering_reports(host):
    """A viewer's address can be forged: once its connection has closed, only one that answers reports lives on."""
    silent, answering = UdpClient(host).start(), UdpClient(host).start()
    silent.socket.close()
    answering.socket.close()

    def meanwhile():
        silent.report()
        sent = answering.rtcp.recv(2048)
        while select.select([answering.rtcp], [], [], 0)[0]:
            sent = answering.rtcp.recv(2048)
        ssrc, time_of_report = sent[4:8], sent[10:14]
        answering.report(bytes([0x81, 201, 0, 7, 0, 0, 0, 9]) + ssrc + bytes(12) + time_of_report + bytes(4))

    host.let_pass(130, meanwhile)
    assert not host.knows(silent.session) and host.knows(answering.session)


def a_viewer_over_udp_lives_by_its_reports(host):
    """Also over IPv6 if the stream was first watched over IPv4, after others have left, and if the reports come
    from another port from some time on, as behind NAT."""
    silent = UdpClient(host).start()
    viewers = UdpClient(host).start(), UdpClient(host, host="[::1]").start(), UdpClient(host).start()
    elsewhere = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)

    def meanwhile():
        viewers[0].report()
        viewers[1].report(sender=elsewhere if host.passed >= 30 else None)
        viewers[2].report()

    host.let_pass(130, meanwhile)
    for viewer in viewers:
        own, other = ("[::1]", "127.0.0.1") if viewer is viewers[1] else ("127.0.0.1", "[::1]")
        assert host.knows(viewer.session, own)
        assert not host.knows(viewer.session, other), "another host used it"
        viewer.sees_a_frame()
    assert not host.knows(silent.session)


def sessions_of_a_connection_live_by_their_own_channels(host):
    viewer = Client(host)
    sessions = []
    for channels in ("0-1", "2-3", "4-5"):
        viewer.session = None
        viewer.start(f"RTP/AVP/TCP;interleaved={channels}")
        assert viewer.ask("PAUSE") == 200
        sessions.append(viewer.session)
    host.let_pass(70, lambda: (viewer.report(channel=1), viewer.report(channel=5)))
    assert [host.knows(session) for session in sessions] == [True, False, True]


def ports_that_are_set_up_again_belong_to_the_new_session(host):
    """The end of the old session does not affect it."""
    viewer = UdpClient(host).start()
    old, viewer.session = viewer.session, None
    viewer.start()
    host.let_pass(130, viewer.report)
    assert not host.knows(old) and host.knows(viewer.session)
    viewer.sees_a_frame()


def a_viewer_that_is_gone_from_its_port_is_ended(host):
    """One that leaves without TEARDOWN, before its 65 seconds are over."""
    silent, gone = UdpClient(host).start(), UdpClient(host).start()
    gone.sees_a_frame()
    for s in (gone.socket, gone.rtp, gone.rtcp):
        s.close()
    host.let_pass(8, step=1)
    assert not host.knows(gone.session) and host.knows(silent.session)


def a_paused_viewer_is_not_stalled(host):
    viewer = Client(host, receive_buffer=4096).start()
    viewer.sees_a_frame()
    assert viewer.ask("PAUSE") == 200
    host.let_pass(120, viewer.report)
    assert viewer.ask("PLAY") == 200
    viewer.sees_a_frame()


def idle_and_stalled_connections_are_closed(host):
    idle, set_up, paused = Client(host), Client(host), Client(host).start()
    assert idle.ask("OPTIONS") == 200 and set_up.set_up() == 200
    assert paused.ask("PAUSE") == 200
    stalled, witness = Client(host, receive_buffer=4096).start(), Client(host).start()
    for _ in range(30):  # until the stalled viewer's path is full
        witness.sees_a_frame()
    host.let_pass(40, witness.sees_a_frame)
    assert idle.is_closed() and stalled.is_closed() and host.knows(paused.session)
    assert not host.knows(set_up.session), "it never played"


class Watcher:
    """Compares a viewer's RTP time with the sender reports."""

    def __init__(self, client):
        self.client, self.first, self.newest, self.frames = client, None, None, 0

    def follow(self, shift):
        """Reads until a sender report has the wall clock that is ahead by this shift. RTP time must not jump, and
        the report must come within 11 s of it, which includes frames that came while the test was elsewhere."""
        begin = None
        while True:
            is_rtp, packet = self.client.packet()
            if not is_rtp:
                if self.is_report_at(packet, shift):
                    return
                continue
            stamp, = struct.unpack_from(">I", packet, 4)
            begin = stamp if begin is None else begin
            if self.frames > 0:
                assert (stamp - self.newest) % 2**32 <= 5 * 90000, f"RTP time jumped, clock at {shift}"
                assert (stamp - begin) % 2**32 <= 11 * 90000, f"no report has the clock at {shift}"
            self.frames += packet[1] >> 7
            self.newest = stamp

    def is_report_at(self, report, shift):
        """Compares the first one with this machine's clock, roughly, and later ones with the first, exactly."""
        seconds, fraction, rtp = struct.unpack_from(">III", report, 8)
        wall = seconds + fraction / 2**32 - shift
        if self.first is None and abs(wall - 2208988800 - time.time()) < 100:  # from 1900 to 1970
            self.first = wall, rtp
        if self.first is None:
            return False
        since = (rtp - self.first[1] + 2**31) % 2**32 - 2**31
        return abs(self.first[0] + since / 90000 - wall) <= 0.002


def steps_of_the_wall_clock_delay_no_frame_and_are_reported_soon(host):
    """All times fit NTP's 32 bits of seconds."""
    watchers = Watcher(Client(host).start()), Watcher(UdpClient(host).start())
    for shift in (-600, 3600, 3599, -1000):  # the first one before the first frame, or just after it
        before = watchers[0].frames
        host.set_clocks(shift, 0)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            list(pool.map(lambda watcher: watcher.follow(shift), watchers))
        assert shift == -600 or watchers[0].frames > before


def run(case):
    with Host() as host:
        case(host)
    print(f"{case.__name__}: passed", flush=True)


with concurrent.futures.ThreadPoolExecutor(3) as pool:
    list(pool.map(run, (without_a_connection_a_viewer_lives_by_answering_reports, a_viewer_over_udp_lives_by_its_reports,
                        sessions_of_a_connection_live_by_their_own_channels,
                        ports_that_are_set_up_again_belong_to_the_new_session,
                        a_viewer_that_is_gone_from_its_port_is_ended, a_paused_viewer_is_not_stalled,
                        idle_and_stalled_connections_are_closed,
                        steps_of_the_wall_clock_delay_no_frame_and_are_reported_soon)))

#!/usr/bin/env python3
"""Clients that misbehave, by accident or on purpose, and other viewers meanwhile."""
import ctypes
import socket
import time

from publisher import REPORT, Client, UdpClient
from pythonhost import live, printed, run, serve


def a_viewer_who_asks_twice_gets_every_packet_once():
    with live() as server:
        viewer = UdpClient(server).start()
        assert viewer.ask("PLAY") == 200
        assert len({viewer.rtp_packet()[2:4] for _ in range(50)}) == 50


def a_body_is_never_answered():
    """Neither a body nor a length that can be read in two ways smuggles in a request."""
    inner = "GET /kavo HTTP/1.0\r\nx-sessioncookie: a\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n"
    length = f"Content-Length: {len(inner)}\r\n"
    with live() as server:
        client = Client(server)
        assert client.ask("OPTIONS", headers=f"{length}\r\n{inner}") == 200
        assert client.ask("OPTIONS") == 200 and "\r\nCSeq: 2" in client.response
        for other in ("Content-Length: 0\r\n", "Content-Length : 0\r\n", "X: y\nContent-Length: 0\r\n"):
            twofold = Client(server)
            assert twofold.ask("OPTIONS") == 200
            assert twofold.ask("OPTIONS", headers=f"{length}{other}\r\n{inner}") == 400, other
            assert "\r\nCSeq: 2" in twofold.response, "the number of another request"
            assert twofold.is_closed()


def sessions_are_bounded_and_failed_ones_leave_nothing():
    with live() as server:
        client = Client(server)

        def set_up(path="kavo"):
            client.session = None
            return client.set_up("RTP/AVP/TCP;unicast", path)

        for _ in range(20):
            assert set_up("nothing") == 404
            assert client.ask("SETUP", "kavo/track9", "Transport: RTP/AVP/TCP;unicast\r\n") == 404
        for _ in range(4):
            assert set_up() == 200 and client.ask("PLAY") == 200
        assert set_up() == 453
        Client(server).start().sees_a_frame()


class Mallinfo(ctypes.Structure):
    _fields_ = [("before", ctypes.c_size_t * 7), ("uordblks", ctypes.c_size_t), ("after", ctypes.c_size_t * 2)]


def memory():
    """Bytes allocated in this process."""
    function = ctypes.CDLL(None).mallinfo2
    function.restype = Mallinfo
    return function().uordblks


def datagrams_from_anybody_cost_nothing():
    """Reports of 30,000 senders, BYEs with reasons and datagrams that are not RTCP, from a viewer and from
    strangers: they take no memory and delay nobody."""
    with live() as server:
        viewer = UdpClient(server).start()
        viewer.sees_a_frame()
        byes = REPORT + bytes([0x81, 203, 0, 2, 0, 0, 0, 1, 3]) + b"bye" + bytes([0x81, 203, 0, 2, 0, 0, 0, 1, 3]) * 110
        before = memory()
        for ssrc in range(30000):
            viewer.report(bytes([0x80, 201, 0, 1, 1]) + ssrc.to_bytes(3))
            if ssrc % 10 == 0:
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as elsewhere:
                    viewer.report(byes, elsewhere)
                    viewer.report(b"\1\2\3", elsewhere)
        viewer.sees_a_frame()
        assert viewer.ask("PLAY") == 200
        viewer.sees_a_frame()
        assert memory() - before < 1e6


def urgent_data_costs_no_cpu():
    with serve() as server:
        client = Client(server)
        assert client.ask("OPTIONS") == 200
        client.socket.send(b"x", socket.MSG_OOB)
        before = time.process_time()
        time.sleep(1)  # a spinning loop takes all of it
        assert time.process_time() - before < 0.5
        assert client.ask("OPTIONS") == 200


def nothing_is_printed_on_the_hosts_outputs():
    with printed() as text:
        with live() as server:
            client = Client(server).start()
            client.socket.sendall(b"$\1\0\x08garbage!")  # as RTCP
            client.sees_a_frame()
            client.ask("NONSENSE", "nowhere")
            Client(server).start().sees_a_frame()
        assert text() == ""


run(a_viewer_who_asks_twice_gets_every_packet_once, a_body_is_never_answered,
    sessions_are_bounded_and_failed_ones_leave_nothing, datagrams_from_anybody_cost_nothing, urgent_data_costs_no_cpu,
    nothing_is_printed_on_the_hosts_outputs)

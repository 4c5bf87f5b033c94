#!/usr/bin/env python3
"""A process that runs out of descriptors, and requests that the server does not support."""
import contextlib
import os
import socket
import time

from publisher import Client
from pythonhost import FRAME, IS_SANITIZED, descriptor_limit, free_port, live, run, serve, submitting


def a_loop_out_of_descriptors_rests_and_comes_back():
    status_port = free_port()
    os.environ["KAVO_STREAM_STATUS"] = f"127.0.0.1:{status_port}"
    stayed = []  # so that the server releases nothing meanwhile
    with live() as server, descriptor_limit(64):
        viewer = Client(server).start()
        for port in (server.port, status_port):
            files = []
            with contextlib.suppress(OSError):
                while True:
                    files.append(os.dup(0))

            def release(count):
                for _ in range(count):
                    os.close(files.pop())

            release(2)
            stayed.append(Client(server).start())  # with the last descriptor, at the server's end
            release(1)
            newcomer = Client(server) if port == server.port else socket.create_connection(("127.0.0.1", port), 60)
            stayed.append(newcomer)  # connected by the kernel: it waits in the backlog
            cpu, begin = time.process_time(), time.monotonic()
            for _ in range(20):
                viewer.sees_a_frame()
            # A spinning loop takes a whole core; encoding and sending these frames takes a fraction of one.
            # Sanitizers multiply that.
            assert IS_SANITIZED or time.process_time() - cpu < 0.9 * (time.monotonic() - begin), port
            release(len(files))
            if port == server.port:
                newcomer.start().sees_a_frame()
            else:
                newcomer.sendall(b"GET / RTSP/1.0\r\n\r\n")
                assert newcomer.recv(100).startswith(b"HTTP/1.1 400 ")
    del os.environ["KAVO_STREAM_STATUS"]


def a_client_is_not_evicted_for_its_own_request():
    """The last descriptors are taken by viewers. A newcomer over UDP needs two more, and there is nobody to evict."""
    with descriptor_limit(40):  # of which the library uses half, and four of these for itself
        server = serve()
    with server, server.create_session("kavo") as session:
        stream = session.create_stream(320, 240)
        with submitting(lambda: stream.submit(FRAME)):
            viewers = [Client(server).start() for _ in range(15)]
            newcomer = Client(server)
            assert newcomer.set_up("RTP/AVP;unicast;client_port=5000-5001") == 503
            newcomer.start()  # over TCP, which needs none
            viewers[0].sees_a_frame()


def requests_that_are_not_offered_are_answered_with_an_error():
    with live() as server:
        client = Client(server)
        for method in ("REGISTER", "DEREGISTER", "ANNOUNCE", "RECORD", "REDIRECT", "GET", "POST", "NONSENSE"):
            assert client.ask(method, headers="Content-Length: 2\r\n\r\nx") == 405, method
            assert f"\r\nCSeq: {client.number}" in client.response, client.response
        assert client.ask("OPTIONS") == 200
        assert client.set_up("RTP/AVP;multicast") == 461
        assert client.response.startswith("RTSP/1.0 461 Unsupported Transport\r\n")
        assert client.ask("SETUP", "kavo/track1") == 461
        assert client.start().set_up() == 455
        client.sees_a_frame()
        tunnel = Client(server)
        tunnel.socket.sendall(b"GET /kavo HTTP/1.0\r\nx-sessioncookie: abc\r\n"
                              b"Accept: application/x-rtsp-tunnelled\r\n\r\n"
                              b"POST /kavo HTTP/1.0\r\nx-sessioncookie: abc\r\nContent-Length: 32767\r\n\r\n")
        assert tunnel.is_closed()
        garbage = Client(server)
        garbage.socket.sendall(b"x" * 9000)
        assert garbage.is_closed()
        client.sees_a_frame()


run(a_loop_out_of_descriptors_rests_and_comes_back, a_client_is_not_evicted_for_its_own_request,
    requests_that_are_not_offered_are_answered_with_an_error)

#!/usr/bin/env python3
"""What operators see and set, independent of the host: the status and the policy file."""
import contextlib
import json
import os
import pathlib
import socket
import stat
import tempfile

from kavo_stream import Wanted
from publisher import Client, UdpClient, is_served, until
from pythonhost import *

FOLDER = tempfile.TemporaryDirectory()
STATUS, POLICY = (pathlib.Path(FOLDER.name, name) for name in ("status", "policy"))
LOCAL = "Host: localhost\r\n\r\n"


def get(path):
    return status_answer(f"GET {path} HTTP/1.1\r\n{LOCAL}".encode()).partition(b"\r\n\r\n")[2]


def status():
    return json.loads(get("/status.json"))


def stream_of(name):
    return next((stream for stream in status()["streams"] if stream["name"] == name), None)


def has_event(kind, text):
    return any(event["kind"] == kind and text in f"{event['address']}: {event['text']}" for event in status()["events"])


def live_under(policy):
    POLICY.write_text(policy)
    return live()


def the_status_is_what_became_of_frames_and_viewers():
    server = serve()
    jpeg_session, h264_session = server.create_session("kavo"), server.create_session("h264")
    jpeg, h264 = jpeg_session.create_stream(320, 240), h264_session.create_stream(320, 240, codec=Codec.H264)
    for _ in range(7):
        jpeg.submit(FRAME)
    unwatched = stream_of("kavo")
    assert unwatched["offered"] == unwatched["unwatched"] == 7 and unwatched["encoded"] == 0
    assert unwatched["width"] == 320 and unwatched["newest_age_ms"] is None

    tcp, udp = Client(server, path="h264").start(), UdpClient(server).start()
    with submitting(lambda: (jpeg.submit(FRAME), h264.submit(FRAME))):
        tcp.sees_a_frame()
        udp.sees_a_frame()
        udp.report()
        assert udp.ask("PAUSE") == 200
    paused, watched = stream_of("kavo")["viewers"][0], stream_of("h264")
    assert (paused["state"], paused["transport"], paused["max_packet"]) == ("paused", "udp", 1400)
    assert paused["address"].startswith("127.0.0.1:")
    assert paused["frames_sent"] >= 1 and paused["bytes_sent"] > 100 * paused["frames_sent"]
    viewer, = watched["viewers"]
    assert (viewer["state"], viewer["transport"]) == ("playing", "tcp")
    assert watched["sent_frames"] == viewer["frames_sent"]
    assert watched["key_frames_requested"] >= 1
    assert watched["offered"] == sum(watched[key] for key in ("encoded", "skipped", "unwatched", "queue_full"))
    before = status()
    assert (before["sessions"], before["port"], before["pid"]) == (2, server.port, os.getpid())
    assert before["started"] <= before["time"]

    assert tcp.ask("TEARDOWN") == 200
    assert stream_of("h264")["viewers"] == []
    assert has_event("joined", "tcp") and has_event("paused", "127.0.0.1") and has_event("left", "TEARDOWN")
    encoded = stream_of("h264")["encoded"]
    with submitting(lambda: h264.submit(FRAME)):
        until(lambda: stream_of("h264")["unwatched"] >= 20, "nothing is submitted")
    assert stream_of("h264")["encoded"] == encoded, "encoded after the last viewer has left"

    assert call(CREATE_SESSION, session_record("kavo")) == NAME_IN_USE
    assert has_event("failed", "already in use")
    error = status()["last_error"]
    assert error["text"] == "Session name already in use" and error["time"] >= before["time"]
    jpeg_session.close()
    assert stream_of("kavo") is None and has_event("left", "the host ended the session")
    server.close()
    assert get("/status.json") == b"" and not STATUS.exists()


def a_host_asks_who_watches():
    """It gets an answer before anything is submitted, and finds streams as a submit does."""
    with serve() as server, server.create_session("kavo") as session:
        stream = session.create_stream(320, 240, codec=Codec.H264)
        asked = stream.status
        assert asked.viewers == asked.wanted == asked.offered == 0
        viewer = Client(server).start()
        assert stream.status.viewers == 1 and stream.status.wanted == Wanted.FRAME | Wanted.KEY_FRAME
        with submitting(lambda: stream.submit(FRAME)):
            viewer.sees_a_frame()
            assert stream.status.wanted == Wanted.FRAME
            assert viewer.ask("TEARDOWN") == 200
        asked = stream.status
        assert asked.viewers == asked.wanted == asked.failed == 0 and asked.offered >= asked.encoded + asked.unwatched
        assert asked.sent_bytes > 100 * asked.sent_frames > 0
        record = StatusRecord(handle=stream._handle, stream=stream._stream)
        assert call(GET_STATUS, record) == OK
        record.stream = NOBODY
        assert call(GET_STATUS, record) == UNKNOWN
        record = StatusRecord(handle=NOBODY, stream=stream._stream)
        assert call(GET_STATUS, record) == UNKNOWN
    assert call(GET_STATUS, StatusRecord(handle=stream._handle, stream=stream._stream)) == UNKNOWN


def only_valid_requests_are_answered():
    with live() as server:
        viewer = UdpClient(server).start()
        odd = session_record("Cam\xe9ra")
        assert call(CREATE_SESSION, odd) == call(CREATE_STREAM, stream_record(odd.handle)) == OK
        mode = STATUS.lstat().st_mode
        assert stat.S_ISSOCK(mode) and stat.S_IMODE(mode) == 0o600
        for code, request in ((200, "GET / HTTP/1.1\r\n" + LOCAL),
                              (200, "HEAD /status.json?x HTTP/1.0\r\nhost: 127.0.0.1:9554\r\n\r\n"),
                              (200, "GET /metrics HTTP/1.1\r\nHost: [::1]\r\n\r\n"),
                              (404, "GET /nothing HTTP/1.1\r\n" + LOCAL), (405, "POST / HTTP/1.1\r\n" + LOCAL),
                              (400, "GET / HTTP/1.1\r\nHost: example.com\r\n\r\n"),
                              (400, "GET / HTTP/1.1\r\nHost: 127.0.0.1.example.com\r\n\r\n"),
                              (400, "GET / HTTP/1.1\r\n\r\n"), (400, "GET / RTSP/1.0\r\n" + LOCAL), (400, "nonsense\r\n\r\n"),
                              (400, "x" * 9000)):
            answer = status_answer(request.encode())
            assert answer.startswith(f"HTTP/1.1 {code} ".encode()), f"{request}: {answer}"
            assert not request.startswith("HEAD") or answer.endswith(b"\r\n\r\n"), "a body that nobody asked for"
        # A name may be any bytes; the status is UTF-8.
        assert stream_of("Cam\ufffdra")["width"] == 64
        metrics = get("/metrics").decode()
        for line in ("# TYPE kavo_frames_sent_total counter",
                     f'kavo_frames_sent_total{{port="{server.port}",stream="Cam\ufffdra"}} 0',
                     f'kavo_viewers{{port="{server.port}",stream="kavo",transport="udp"}} 1'):
            assert f"{line}\n" in metrics, metrics
        viewer.sees_a_frame()
        assert b"<!doctype html>" in get("/")


def status_requests_delay_no_frame():
    """Slow clients and crowds of them: the status server limits their time and number."""
    with live() as server:
        viewer = Client(server).start()
        slow = [socket.socket(socket.AF_UNIX) for _ in range(100)]
        for number, asking in enumerate(slow):
            asking.connect(str(STATUS))
            with contextlib.suppress(OSError):
                asking.send(b"GET / HT" if number % 2 else f"GET / HTTP/1.1\r\n{LOCAL}".encode())
        for _ in range(50):
            viewer.sees_a_frame()
        while get("/status.json") == b"":  # until the slow clients have timed out
            viewer.sees_a_frame()
        for asking in slow:
            asking.close()


def without_a_status_address_the_host_still_serves():
    for place in (f"{FOLDER.name}/nowhere/%p", "nonsense", "127.0.0.1:0", "192.0.2.1:9554"):
        os.environ["KAVO_STREAM_STATUS"] = place
        with printed() as text, live() as server:
            Client(server).start().sees_a_frame()
            assert f"KAVO_STREAM_STATUS={place.partition('%')[0]}" in text() and text().count("\n") == 1, text()
    os.environ["KAVO_STREAM_STATUS"] = str(STATUS)


def fails_to_start(*reasons):
    with printed() as text:
        assert call(INIT, ctypes.c_uint32(free_port())) == RESOURCE_FAILURE, reasons
        assert all(reason in text() for reason in reasons) and text().count("\n") == 1, f"{reasons}: {text()}"


def an_invalid_policy_prevents_the_start():
    address, networks, text = "one IPv4 or IPv6 address", "must be ranges such as", "1 to 100 bytes"
    for policy, line, reason in (
            ("[server", 1, "table"),
            ("server = 1", 1, "must be a table"),
            ("[server]\nport = 1", 2, "unknown key 'server.port'"),
            ("[Server]", 1, "unknown key 'Server'"),
            ("[server]\naddress = 1", 2, "must be a quoted string"),
            ("[server]\naddress = ''", 2, text),
            ("[server]\naddress = 'localhost'", 2, address),
            ("[server]\naddress = '127.0.0.1/32'", 2, address),
            ("[server]\naddress = '::ffff:127.0.0.1'", 2, address),
            ("[server]\naddress = '::1'\naddress = '::1'", 3, ""),
            ("[server]\naddress = '127.0.0.1'\n[access]\nallow = ['192.168.1.0/24']", 4, "shuts out server.address"),
            ("[server]\nmax_connections = 0", 2, "from 1 to 1000000"),
            ("[server]\nmax_connections = '5'", 2, "whole number"),
            ("[server]\n\nmax_viewers = true", 3, "server.max_viewers must be"),
            ("[server]\nmax_viewers_per_address = 99999999999", 2, "per_address must be"),
            ("[access]\nrealm = 'a\"b'", 2, text),
            ("[access]\nusers = []", 2, "must be a table"),
            ("[access.users]", 1, "at least one user"),
            ("[access.users]\na = 5", 2, "password of 'a'"),
            ("[access.users]\n'a:b' = 'c'", 2, "colon"),
            ('[access.users]\na = "b\\nc"', 2, text),
            ("[access]\nallow = []", 2, "at least one address range"),
            ("[access]\nallow = [\n'127.0.0.1',\n'nowhere']", 4, networks),
            ("[access]\nallow = ['127.0.0.1/8']", 2, networks),
            ("[access]\nallow = ['::ffff:192.0.2.0/120']", 2, networks),
            ("[delivery]\nmax_packet = 511", 2, "from 512 to 8900"),
            ("[delivery]\npace_mbit = -1", 2, "from 0 to 100000"),
            ("[encoding]\nparallel = 1", 2, "true or false"),
            ("a" + "." * 5000, 1, "longer than"),
            ("\udc80", 1, "")):
        POLICY.write_text(policy, errors="surrogateescape")
        fails_to_start(f"{POLICY}:{line}: ", reason)
    for make, reason in ((POLICY.unlink, "cannot be read: No such file"), (POLICY.mkdir, "regular file"),
                         (lambda: (POLICY.rmdir(), os.mkfifo(POLICY)), "regular file"),  # that nobody writes to
                         (lambda: (POLICY.unlink(), POLICY.write_text("#" * 70000)), "at most 64 kB"),
                         (lambda: POLICY.write_text(" \n"), "is empty"),
                         (lambda: POLICY.write_text("[server]\naddress = '192.0.2.1'\n"), "cannot listen on 192.0.2.1, port")):
        make()
        fails_to_start(reason)
    for policy in ("# nothing is set\n", "[server]\naddress = '0.0.0.0'\n[access]\nallow = ['192.168.1.0/24']\n",
                   "[server]\naddress = '::'\n[access]\nallow = ['::1']\n"):
        with live_under(policy):
            pass


def limits_and_ranges_are_kept():
    with live_under("[server]\nmax_viewers_per_address = 1\n[delivery]\nmax_packet = 600\n") as server:
        ipv4 = Client(server).start()
        assert Client(server).set_up() == 453 and Client(server, host="[::1]").set_up() == 200
        assert max(len(ipv4.packet()[1]) for _ in range(20)) in range(500, 601)
    with live_under("[server]\nmax_viewers = 1\nmax_connections = 2\naddress = '127.0.0.1'\n") as server:
        assert not is_served(server.port, socket.AF_INET6, "::1"), "it listens at another address"
        first, second = Client(server).start(), Client(server)
        assert second.set_up() == 453
        assert Client(server).ask("OPTIONS") == 200 and second.is_closed(), "the one without a stream is evicted"
    with live_under("[access]\nallow = ['192.0.2.0/24', '::/0']\n") as server:
        assert Client(server).is_closed()
        Client(server, host="[::1]").start().sees_a_frame()
        assert has_event("refused", "127.0.0.1: not allowed") and has_event("refused", "too many sessions")
        assert all(Client(server).is_closed() for _ in range(20))
        assert status()["refused"]["address"] == 21
        assert has_event("refused", "not allowed from there (21 times)"), "one line for them all"


os.environ |= {"KAVO_STREAM_STATUS": str(STATUS), "KAVO_STREAM_CONFIG": str(POLICY)}
POLICY.write_text("# nothing is set\n")
run(the_status_is_what_became_of_frames_and_viewers, a_host_asks_who_watches,
    only_valid_requests_are_answered, status_requests_delay_no_frame,
    without_a_status_address_the_host_still_serves, an_invalid_policy_prevents_the_start,
    limits_and_ranges_are_kept)

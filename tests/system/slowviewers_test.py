#!/usr/bin/env python3
"""Viewers that stall or vanish in mid-frame, and the other viewers. Usage: slowviewers_test.py jpeg|h264"""
import contextlib
import itertools
import sys

import numpy

from kavo_stream import Codec
from publisher import Client
from pythonhost import serve, submitting
from rtpchecker import RtpChecker

CODEC = Codec[sys.argv[1].upper()]
# For how many frames a viewer stalls, which must not take the 10 s after which it is disconnected. When it resumes
# it must not depend on the regular key frame, which H.264 has every 50 frames.
STANDSTILL = 60
RNG = numpy.random.default_rng(1)
if CODEC == Codec.JPEG:  # noise makes images large
    FRAMES = RNG.integers(0, 32, (480, 640, 3), numpy.uint8)
else:  # faint blocks: the encoder skips noise, needs few bytes for still frames, makes key frames if much changes
    FRAMES = RNG.integers(112, 144, (60, 40, 1), numpy.uint8).repeat(16, 0).repeat(16, 1).repeat(3, 2)
# Each frame begins farther down than encoders search for motion.
ROWS = (149 * number % (len(FRAMES) - 479) for number in itertools.count())


@contextlib.contextmanager
def live(stream):
    """Submits frames."""
    with submitting(lambda: stream.submit(FRAMES[(row := next(ROWS)):row + 480])):
        yield


def slow(server):
    return Client(server, receive_buffer=4096).start()


def watch(viewer, is_enough, may_miss=False):
    """Reads frames and checks them against the RFCs, except for gaps if it may miss some."""
    checker = RtpChecker(26 if CODEC == Codec.JPEG else 96)
    while not is_enough(checker):
        is_rtp, packet = viewer.packet()
        if is_rtp:
            checker.rtp(packet, 4e9)
    faults = [complaint for complaint in checker.complaints if not may_miss or "gap in the sequence" not in complaint]
    assert not faults, faults
    return checker


def frames(count):
    return lambda checker: checker.frames >= count


def a_stalled_viewer_delays_nobody_and_resumes_with_whole_frames(server, stream):
    witness = Client(server).start()
    with live(stream):
        watch(witness, frames(10))  # the first frames are small enough for a receive buffer
    stalled = slow(server)  # while nothing is submitted, so that no packet is read along with PLAY's response
    with live(stream):
        newest = watch(witness, frames(STANDSTILL)).timestamp
        older = 0  # frames, apart from those that wait behind the begun one: for half a second, and then no longer

        def has_caught_up(checker):
            nonlocal older
            older = checker.frames if checker.since(newest, checker.timestamp) < -1 else older
            return checker.frames >= older + 40

        assert watch(stalled, has_caught_up, may_miss=True).complaints, "it was never behind"
        assert older <= 1, f"{older} frames of more than a second ago came, not just the one that was begun"
        assert stalled.ask("GET_PARAMETER") == 200
        watch(stalled, frames(5), may_miss=True)


def nothing_of_one_connection_reaches_the_next(server, stream):
    """New connections get the descriptor numbers of connections that were just closed."""
    witness = Client(server).start()
    with live(stream):
        for number in range(100 if CODEC == Codec.JPEG else 5):  # viewers of H.264 wait for a key frame
            leaving = [slow(server) for _ in range(20)]
            for viewer in leaving:
                viewer.packet()
            for viewer in leaving:
                viewer.socket.close()
            following = [Client(server) for _ in range(20)]
            for client in following:
                assert client.ask("OPTIONS") == 200 and client.response.startswith("RTSP/1.0 200 OK"), f"round {number}"
                assert not client.early, f"packets of another viewer came in round {number}"
                client.socket.close()
            watch(witness, frames(1), may_miss=True)


def a_client_that_sends_without_reading_is_disconnected(server, stream):
    """Its responses find no room, and its requests must not pile up."""
    witness, flooding = Client(server).start(), slow(server)
    with live(stream), contextlib.suppress(ConnectionError):
        while True:
            flooding.socket.sendall(b"OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n" * 100)
    with live(stream):
        watch(witness, frames(3), may_miss=True)


for case in (a_stalled_viewer_delays_nobody_and_resumes_with_whole_frames, nothing_of_one_connection_reaches_the_next,
             a_client_that_sends_without_reading_is_disconnected):
    with serve() as server, server.create_session("kavo") as session:
        bits = 4000000 * (25 if CODEC == Codec.JPEG else 1)
        case(server, session.create_stream(640, 480, codec=CODEC, bits_per_second=bits))
    print(f"{case.__name__}: passed", flush=True)

#!/usr/bin/env python3
"""Frames that the host has encoded: what is accepted, what is refused, and what viewers get."""
import base64
import concurrent.futures
import contextlib
import ctypes
import itertools
import struct
import threading

from kavo_stream import CodecFailure, Error, Wanted
from publisher import Client
from pythonhost import *

SPS, PPS = bytes.fromhex("6764001EACD940A0"), bytes.fromhex("68EBE3CB")
OTHER_SPS = bytes.fromhex("6742E01EACD940A0")
DELIMITER, SEI = bytes.fromhex("09F0"), bytes.fromhex("06050180")
IDR, SECOND_SLICE, INTER = bytes.fromhex("65888421"), bytes.fromhex("65088422"), bytes.fromhex("419A2133")
VPS265 = bytes.fromhex("40010C01FFFF01600000030090000003000003003F95")
SPS265, PPS265 = bytes.fromhex("42010101600000030090000003000003003FA0"), bytes.fromhex("4401C172")
CRA265, INTER265 = bytes.fromhex("2A01AF11"), bytes.fromhex("0201D011")  # the first is a key frame, although no IDR


def annex_b(*units):
    return b"".join(b"\0\0\0\1" + unit for unit in units)


@contextlib.contextmanager
def watched(codec=Codec.H264, sets=b""):
    """A stream and its viewer."""
    with serve() as server, server.create_session("kavo") as session:
        stream = session.create_encoded_stream(codec, sets, 1234)
        yield stream, Client(server).start()


def next_frame(viewer):
    """Its NAL units, each of which fits a packet, and its RTP time."""
    units = []
    while True:
        is_rtp, packet = viewer.packet()
        if is_rtp:
            units.append(packet[12:])
            if packet[1] >> 7:
                return units, struct.unpack_from(">I", packet, 4)[0]


def shows(viewer, *units):
    seen = next_frame(viewer)[0]
    assert seen == list(units), f"{seen}, not {units}"


def results():
    good, half, more = annex_b(SPS, PPS), annex_b(SPS), annex_b(SPS, PPS, IDR)
    with serve() as server:
        own, other = session_record("own"), session_record("other")
        assert call(CREATE_SESSION, own) == call(CREATE_SESSION, other) == OK

        def sets(some):
            return {"parameter_sets": some, "parameter_size": len(some)}

        for result, changes in (
                (UNKNOWN, {"handle": NOBODY}), (INVALID_PARAMETER, {"codec": 27}), (INVALID_PARAMETER, {"bitrate": -1}),
                (INVALID_PARAMETER, {"parameter_size": 0}), (INVALID_PARAMETER, {"parameter_sets": None}),
                (INVALID_PARAMETER, {"parameter_size": -1}), (INVALID_PARAMETER, {"codec": Codec.JPEG}),
                (CODEC_FAILURE, sets(half)), (CODEC_FAILURE, sets(more)), (CODEC_FAILURE, sets(b"\x67\1\2\3")),
                (CODEC_FAILURE, {"codec": Codec.H265}), (OK, {})):
            stream = EncodedStreamRecord(**{"handle": own.handle, "codec": Codec.H264, **sets(good), **changes})
            assert call(CREATE_ENCODED_STREAM, stream) == result, changes
            assert (stream.stream is not None) == (result == OK), changes
        created = stream
        again = EncodedStreamRecord(handle=own.handle, codec=Codec.H264)
        assert call(CREATE_ENCODED_STREAM, again) == ALREADY_THERE and again.stream is None
        data = ctypes.create_string_buffer(more)
        frame = {"handle": own.handle, "stream": created.stream, "data": ctypes.addressof(data), "size": len(more)}
        for result, changes in (
                (UNKNOWN, {"handle": NOBODY}), (UNKNOWN, {"stream": NOBODY}), (INVALID_PARAMETER, {"data": None}),
                (INVALID_PARAMETER, {"size": 0}), (INVALID_PARAMETER, {"size": 8000001}),
                (INVALID_PARAMETER, {"time_ns": -1}), (OK, {}), (OK, {"data": NOBODY})):  # nobody watches: not looked at
            record = EncodedFrameRecord(**{**frame, **changes})
            assert call(SUBMIT_ENCODED, record) == result and record.wanted == 0, changes
        raw = FrameRecord(handle=own.handle, stream=created.stream, frame=NOBODY)
        assert call(SUBMIT_FRAME, raw) == INVALID_PARAMETER
        stream = stream_record(other.handle)
        assert call(CREATE_STREAM, stream) == OK
        record = EncodedFrameRecord(**{**frame, "handle": other.handle, "stream": stream.stream})
        assert call(SUBMIT_ENCODED, record) == INVALID_PARAMETER, "an encoded frame for a raw stream"


def a_viewer_begins_with_a_key_frame_and_its_parameter_sets():
    """The key frame can be decoded by itself, and a delimiter stays first."""
    with watched(sets=annex_b(SPS, PPS)) as (stream, viewer):
        assert stream.submit(annex_b(INTER)) == Wanted.FRAME | Wanted.KEY_FRAME
        assert stream.submit(annex_b(DELIMITER, SEI, IDR, SECOND_SLICE)) == Wanted.FRAME, "one key frame is enough"
        shows(viewer, DELIMITER, SPS, PPS, SEI, IDR, SECOND_SLICE)
        stream.submit(annex_b(OTHER_SPS, PPS, IDR))
        shows(viewer, OTHER_SPS, PPS, IDR)  # its own
        stream.submit(annex_b(INTER)[1:])
        shows(viewer, INTER)
        stream.submit(annex_b(IDR))
        shows(viewer, OTHER_SPS, PPS, IDR)  # the newest


def of_h265_any_irap_is_a_key_frame():
    with watched(Codec.H265, annex_b(VPS265, SPS265, PPS265)) as (stream, viewer):
        assert viewer.ask("DESCRIBE") == 200
        for text in (b"H265/90000", b"sprop-vps=QAEM", b"sprop-sps=QgEB", b"sprop-pps=RAHBcg=="):
            assert text in viewer.body, viewer.body
        stream.submit(annex_b(INTER265))
        stream.submit(annex_b(CRA265))
        shows(viewer, VPS265, SPS265, PPS265, CRA265)


def the_description_has_the_parameter_sets_in_use():
    """Those of the record, then those submitted in band; without any, only the packetization mode."""
    with watched() as (stream, viewer):
        def description():
            assert viewer.ask("DESCRIBE") == 200
            return viewer.body

        assert b"b=AS:1234\r\n" in description() and b"packetization-mode=1\r\n" in description()
        assert b"sprop" not in description()
        refused(CodecFailure, "", lambda: stream.submit(annex_b(IDR)))  # no sets are known
        stream.submit(annex_b(SPS, PPS, IDR))
        sets = b"profile-level-id=64001E;sprop-parameter-sets=" + base64.b64encode(SPS) + b"," + base64.b64encode(PPS)
        assert sets in description(), description()
        stream.submit(annex_b(OTHER_SPS, PPS, IDR))
        assert b"profile-level-id=42E01E" in description()


def an_invalid_access_unit_is_refused_and_followed_by_a_key_frame():
    with watched(sets=annex_b(SPS, PPS)) as (stream, viewer):
        stream.submit(annex_b(IDR))
        shows(viewer, SPS, PPS, IDR)
        for wrong in (INTER, b"\0\0\0\4" + INTER, bytes(20), b"\0\0\0\1", annex_b(SPS, PPS), annex_b(INTER, INTER),
                      annex_b(SECOND_SLICE), annex_b(b"\xC1\x9A\x21"),  # the forbidden bit
                      annex_b(INTER, b"\x78\1\2"),  # a type of the packets
                      annex_b(b"\x67\1", PPS, IDR), annex_b(SPS, b"\x68" * 5000, IDR)):
            refused(CodecFailure, "", lambda: stream.submit(wrong))
        stream.submit(annex_b(INTER))  # which refers to what was lost
        stream.submit(annex_b(IDR))
        shows(viewer, SPS, PPS, IDR)


def capture_times_must_increase():
    with watched(sets=annex_b(SPS, PPS)) as (stream, viewer):
        begin, first = 5000000000, None
        for milliseconds, ticks in ((0, 0), (40, 3600), (40, None), (39, None), (73, 6570)):
            time_ns = begin + milliseconds * 1000000
            if ticks is None:
                assert refused(Error, "", lambda: stream.submit(annex_b(IDR), time_ns)).result == INVALID_PARAMETER
                continue
            stream.submit(annex_b(IDR), time_ns)
            rtp_time = next_frame(viewer)[1]
            first = rtp_time if first is None else first
            assert (rtp_time - first - ticks + 1) % 2**32 <= 2, milliseconds
        stream.submit(annex_b(IDR))  # now


def after_a_dropped_frame_comes_a_key_frame():
    """The host submits faster than frames are sent: no frame that arrives refers to a dropped one."""
    with watched(sets=annex_b(SPS, PPS)) as (stream, viewer):
        interval, done = 30, threading.Event()

        def submit():
            for number in itertools.count():
                if done.is_set():
                    return
                tail = bytes(1 + part for part in (number // 40000, number // 200 % 200, number % 200))
                stream.submit(annex_b((INTER if number % interval else IDR) + tail))

        with concurrent.futures.ThreadPoolExecutor(1) as host:
            submitting = host.submit(submit)
            last, frames, gaps = -1, 0, 0
            while gaps < 5 or frames < 500:
                end = next_frame(viewer)[0][-1][-3:]
                number = (end[0] - 1) * 40000 + (end[1] - 1) * 200 + end[2] - 1
                if number != last + 1:
                    assert number % interval == 0, f"{number} after {last}"
                    gaps += 1
                last, frames = number, frames + 1
            done.set()
            submitting.result()


run(results, a_viewer_begins_with_a_key_frame_and_its_parameter_sets, of_h265_any_irap_is_a_key_frame,
    the_description_has_the_parameter_sets_in_use, an_invalid_access_unit_is_refused_and_followed_by_a_key_frame,
    capture_times_must_increase, after_a_dropped_frame_comes_a_key_frame)

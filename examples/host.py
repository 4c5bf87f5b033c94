#!/usr/bin/env python3
"""A host program in Python: a moving test pattern from numpy (or plain bytes).

    python3 host.py [PORT] [SECONDS]

The library is looked for as libkavo_stream.so.2; KAVO_STREAM names another place.
"""
import ctypes
import os
import sys
import time

try:
    import numpy
except ImportError:
    numpy = None

WIDTH, HEIGHT, RATE = 640, 480, 25
INIT, EXIT, CREATE_SESSION, CREATE_STREAM, SUBMIT_FRAME = 0, 1, 2, 4, 5
RGB24, MJPEG = 2, 8


class SessionRecord(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("name", ctypes.c_char * 20),
                ("info", ctypes.c_char * 20), ("description", ctypes.c_char * 20), ("url", ctypes.c_char * 260)]


class VideoRecord(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int32) for name in (
        "reserved", "src_width", "src_height", "dst_width", "dst_height", "src_pixel_format", "dst_pixel_format",
        "src_codec", "dst_codec", "frame_rate", "bitrate")]


class StreamRecord(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("stream", ctypes.c_void_p),
                ("media_type", ctypes.c_int32), ("gap", ctypes.c_int32), ("video", ctypes.POINTER(VideoRecord))]


class FrameRecord(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("stream", ctypes.c_void_p),
                ("frame", ctypes.c_void_p), ("reserved2", ctypes.c_void_p)]


kv_stream = ctypes.CDLL(os.environ.get("KAVO_STREAM", "libkavo_stream.so.2"))["_Z9kv_StreamiPvi"]
kv_stream.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int]


def call(command, record=None):
    result = kv_stream(command, ctypes.byref(record) if record is not None else None,
                       ctypes.sizeof(record) if record is not None else 0)
    if result != 0:
        sys.exit(f"command {command} failed with result {result}")


def pattern(number):
    """One frame as bytes: a ramp that moves."""
    if numpy is None:
        return bytes((x + number * 3) & 0xFF for x in range(WIDTH) for _ in range(3)) * HEIGHT
    ramp = (numpy.arange(WIDTH) + number * 3).astype(numpy.uint8)
    return numpy.broadcast_to(ramp[None, :, None], (HEIGHT, WIDTH, 3)).tobytes()


def main():
    call(INIT, ctypes.c_uint32(int(sys.argv[1]) if len(sys.argv) > 1 else 8554))
    session = SessionRecord(name=b"host", info=b"test pattern", description=b"test pattern")
    call(CREATE_SESSION, session)
    video = VideoRecord(src_width=WIDTH, src_height=HEIGHT, dst_width=WIDTH, dst_height=HEIGHT,
                        src_pixel_format=RGB24, dst_codec=MJPEG, frame_rate=RATE, bitrate=400000)
    stream = StreamRecord(handle=session.handle, video=ctypes.pointer(video))
    call(CREATE_STREAM, stream)
    print(session.url.decode(), flush=True)
    frame = FrameRecord(handle=session.handle, stream=stream.stream)
    frames = int(sys.argv[2]) * RATE if len(sys.argv) > 2 else None
    number = 0
    while number != frames:
        pixels = pattern(number)
        frame.frame = ctypes.cast(pixels, ctypes.c_void_p)
        call(SUBMIT_FRAME, frame)
        time.sleep(1 / RATE)
        number += 1
    call(EXIT)


main()

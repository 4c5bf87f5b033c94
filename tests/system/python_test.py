#!/usr/bin/env python3
"""The Python module with the built library: frames of numpy and others, refusals, and what a player shows."""
import subprocess
import threading

import numpy

import kavo_stream
from publisher import Client
from pythonhost import refused, serve, submitting


def seen(url, submit):
    """The first pixel that FFmpeg shows while submit() is called again and again."""
    with submitting(submit):
        out = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp", "-i", url,
                              "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"], check=True,
                             capture_output=True, timeout=60).stdout
    return tuple(out[:3])


def near(colour, wanted, distance):
    assert max(abs(a - b) for a, b in zip(colour, wanted)) <= distance, f"{colour}, not {wanted}"


refused(kavo_stream.Error, "not running", lambda: kavo_stream.Session(None, "early", "x"))
server = serve()
url = server.root
with server:
    refused(kavo_stream.Error, "already exists", lambda: kavo_stream.Server(8554))
    refused(ValueError, "1 to 65535", lambda: kavo_stream.Server(0))
    with server.create_session("jpeg") as session:
        refused(kavo_stream.NameInUse, "has this name", lambda: server.create_session("jpeg"))
        refused(ValueError, "1 to 19 bytes", lambda: server.create_session("n" * 20))
        refused(kavo_stream.CodecFailure, "codec refused", lambda: session.create_stream(64, 47))
        stream = session.create_stream(320, 240)
        assert stream.shape == (240, 320, 3) and session.url.endswith(url.split(":")[-1] + "jpeg")
        large = numpy.zeros((240, 640, 3), numpy.uint8)
        for wrong in (large, large[:, ::2], large.astype(float), numpy.zeros((320, 240, 3), numpy.uint8), b"short"):
            refused(ValueError, "(240, 320, 3)", lambda: stream.submit(wrong))
        red = numpy.zeros((240, 320, 3), numpy.uint8)
        red[:, :, 2] = 255
        near(seen(url + "jpeg", lambda: stream.submit(red)), (254, 0, 0), 3)
        status = stream.status
        assert status.encoded > 0 and status.offered >= status.encoded + status.unwatched and status.failed == 0
    with server.create_session("encoded") as session:
        encoded = session.create_encoded_stream(kavo_stream.Codec.JPEG)
        image = subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=white:s=64x64", "-frames:v", "1",
                                "-pix_fmt", "yuvj420p", "-c:v", "mjpeg", "-huffman", "default", "-f", "mjpeg", "-"],
                               check=True, capture_output=True).stdout
        assert encoded.submit(image) == kavo_stream.Wanted.NOTHING
        wanted = []
        near(seen(url + "encoded", lambda: wanted.append(encoded.submit(image))), (255, 255, 255), 2)
        assert kavo_stream.Wanted.FRAME in wanted

# Other Python threads run while a frame is encoded.
with serve() as server, server.create_session("large") as session:
    stream = session.create_stream(1920, 1080, kavo_stream.PixelFormat.BGR24, kavo_stream.Codec.H264)
    frame = numpy.random.default_rng(1).integers(0, 255, stream.shape, numpy.uint8)
    counted, busy = 0, threading.Event()

    def count():
        global counted
        while not busy.is_set():
            counted += 1

    viewer = Client(server, path="large").start()
    counter = threading.Thread(target=count)
    counter.start()
    before = counted
    stream.submit(frame)
    during = counted - before
    busy.set()
    counter.join()
    assert during > 100, f"{during} rounds of another thread"
session.close()  # does nothing, since the server has ended
print("passed")

#!/usr/bin/env python3
"""The packets on the wire conform to the RFCs."""
import concurrent.futures
import time

import numpy

from kavo_stream import Codec
from publisher import Client, UdpClient
from pythonhost import serve, submitting
from rtpchecker import RtpChecker


def watch(codec, kind):
    client = kind(server, path=codec.name).start()
    checker = RtpChecker(26 if codec == Codec.JPEG else 96)
    while checker.frames < 100 or checker.sender_reports < 2:
        is_rtp, packet = client.packet()
        checker.rtp(packet, time.time()) if is_rtp else checker.rtcp(packet)
    what = f"{codec.name}, {kind.__name__}"
    assert not checker.complaints, f"{what}: {checker.complaints}"
    assert codec == Codec.JPEG or checker.nal_types[:3] == [7, 8, 5], f"{what}: {checker.nal_types[:3]}"
    assert checker.packets > checker.frames, f"{what}: no frame has several packets"


with serve() as server:
    codecs = Codec.JPEG, Codec.H264
    streams = [server.create_session(codec.name).create_stream(640, 480, codec=codec) for codec in codecs]
    frame = numpy.indices((480, 640, 3)).sum(0).astype(numpy.uint8)
    with (submitting(lambda: [stream.submit(frame) for stream in streams]),
          concurrent.futures.ThreadPoolExecutor() as pool):
        list(pool.map(watch, (Codec.JPEG, Codec.JPEG, Codec.H264, Codec.H264), (Client, UdpClient) * 2))
print("passed")

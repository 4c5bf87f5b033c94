#!/usr/bin/env python3
"""A viewer that measures what arrives through a link.

linkviewer.py tcp RTSP_URL SECONDS: watches a JPEG stream over TCP, and prints as JSON whole
and damaged frames, Mbit/s, and how old the frames were, in seconds since their submit, when
their last byte was there. Server and viewer have the same clock.

linkviewer.py udp RTSP_URL SECONDS FILE: writes an H.264 stream that comes over UDP to the
file, without the NAL units that lack a packet. It asks for a key frame when it misses one,
by a report and a picture loss indication (RFC 4585)."""
import json
import re
import select
import statistics
import struct
import sys
import time

from rtpchecker import RtpChecker
from rtsp import Connection


def watch_tcp(url, seconds):
    connection = Connection(url)
    connection.play("RTP/AVP/TCP;unicast;interleaved=0-1")
    checker = RtpChecker(26)
    ages, size, begin = [], 0, time.monotonic()
    while (now := time.monotonic()) < begin + seconds:
        channel, packet = connection.early.pop(0) if connection.early else connection.interleaved()
        if channel == 1:
            checker.rtcp(packet)
            continue
        before = checker.frames - checker.damaged
        checker.rtp(packet, time.time())
        size += len(packet) + 4
        if checker.frames - checker.damaged > before and checker.clock:
            wall, rtp_time = checker.clock
            ages.append(time.time() - wall - checker.since(rtp_time, checker.timestamp))
    if not ages:
        sys.exit("no whole frame, or no report with its time")
    print(json.dumps({"frames": len(ages), "damaged": checker.damaged, "mbit": 8e-6 * size / (now - begin),
                      "age": statistics.median(ages), "oldest": max(ages)}))


class H264Units:
    def __init__(self, file):
        self.file = file
        self.expected = None
        self.fragments = None  # of an incomplete NAL unit
        self.ssrc = b"\0\0\0\0"
        self.highest = self.lost = 0

    def add(self, packet):
        """Returns whether packets are missing before this one."""
        sequence = int.from_bytes(packet[2:4], "big")
        self.ssrc = packet[8:12]
        missing = 0 if self.expected is None else (sequence - self.expected) & 0xFFFF
        self.expected = (sequence + 1) & 0xFFFF
        self.lost += missing
        self.highest = sequence
        payload = packet[12:]
        if missing:
            self.fragments = None
        if payload[0] & 31 != 28:
            self.write(payload)
        elif payload[1] & 0x80:  # first fragment
            self.fragments = bytes([payload[0] & 0xE0 | payload[1] & 31]) + payload[2:]
        elif self.fragments is not None:
            self.fragments += payload[2:]
            if payload[1] & 0x40:
                self.write(self.fragments)
                self.fragments = None
        return missing > 0

    def write(self, unit):
        self.file.write(b"\0\0\0\1" + unit)

    def request_key_frame(self):
        """Receiver report and picture loss indication."""
        block = self.ssrc + struct.pack(">IIIII", self.lost & 0xFFFFFF, self.highest, 0, 0, 0)
        return struct.pack(">BBHI", 0x81, 201, 7, 9) + block + struct.pack(">BBHI", 0x81, 206, 2, 9) + self.ssrc


def watch_udp(url, seconds, file):
    connection = Connection(url)
    rtp, rtcp, transport = connection.udp_sockets()
    setup = connection.play(transport)
    server = (connection.host, int(re.search(r"server_port=\d+-(\d+)", setup)[1]))
    units = H264Units(file)
    end = time.monotonic() + seconds
    wished = 0
    wants = False
    while (now := time.monotonic()) < end:
        if select.select([rtp], [], [], 1)[0]:
            wants = units.add(rtp.recv(65536)) or wants
        if wants and now - wished > 0.1:
            rtcp.sendto(units.request_key_frame(), server)
            wished, wants = now, False


if __name__ == "__main__":
    if sys.argv[1] == "tcp":
        watch_tcp(sys.argv[2], float(sys.argv[3]))
    else:
        with open(sys.argv[4], "wb") as output:
            watch_udp(sys.argv[2], float(sys.argv[3]), output)

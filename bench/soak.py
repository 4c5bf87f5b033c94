#!/usr/bin/env python3
"""Publishes frames as fast as they go while viewers come and go, one stalls, a session
is removed now and then and the wall clock is set, and looks once a second at memory,
descriptors and latency. Fails where they grow. Figures go to build/soak.csv, curves to
build/soak.svg. "make soak SECONDS=..." runs it."""
import contextlib
import ctypes
import json
import os
import pathlib
import re
import select
import socket
import statistics
import struct
import subprocess
import sys
import threading
import time

from rtsp import Connection

PROJECT = pathlib.Path(__file__).resolve().parent.parent
BUILD = PROJECT / "build" / "release"

SIZE = 64  # pixels
INIT, CREATE_SESSION, REMOVE_SESSION, CREATE_STREAM, SUBMIT = 0, 2, 3, 4, 5
WARM_UP = 120  # seconds
MEMORY_GROWTH = 2000  # kB
MEMORY_FOR_VIEWERS = 20000  # kB for a few viewers, a stalled one among them
LATENCY_GROWTH = 5  # ms, if it has doubled too


class Host:
    """The host process, which loads the library through ctypes."""

    def __init__(self, port):
        self.library = ctypes.CDLL(str(BUILD / "src" / "libkavo_stream.so.2"))
        self.call(INIT, struct.pack("i", port))
        self.picture = ctypes.create_string_buffer(SIZE * SIZE * 3 // 2)
        self.streams = [self.create("steady", 8), self.create("passing", 28)]

    def call(self, command, record):
        result = self.library._Z9kv_StreamiPvi(command, record, len(record))
        if result != 0:
            sys.exit(f"command {command}: result {result}")

    def create(self, name, codec):
        """The record that submits a frame."""
        session = ctypes.create_string_buffer(struct.pack("16x20s20s20s260s", name.encode(), b"i", b"d", b""), 336)
        self.call(CREATE_SESSION, session)
        handle = struct.unpack_from("Q", session, 8)[0]
        video = ctypes.create_string_buffer(struct.pack("11i", 0, SIZE, SIZE, SIZE, SIZE, 0, 0, 0, codec, 25, 100000), 44)
        stream = ctypes.create_string_buffer(struct.pack("QQQiiQ", 0, handle, 0, 0, 0, ctypes.addressof(video)), 40)
        self.call(CREATE_STREAM, stream)
        return ctypes.create_string_buffer(
            struct.pack("QQQQQ", 0, handle, struct.unpack_from("Q", stream, 16)[0], ctypes.addressof(self.picture), 0), 40)

    def run(self):
        print("serves", flush=True)
        renewed = time.monotonic()
        while True:
            for stream in self.streams:
                self.call(SUBMIT, stream)
            now = time.monotonic()
            if now - renewed > 10:
                handle = struct.unpack_from("Q", self.streams[1], 8)[0]
                if self.library._Z9kv_StreamiPvi(REMOVE_SESSION, ctypes.c_void_p(handle), 8) != 0:
                    sys.exit("a session was not removed")
                self.streams[1] = self.create("passing", 28)
                renewed = now


class Load(threading.Thread):
    """Viewers: one that stalls, one that joins each second, one that measures."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.url = f"rtsp://127.0.0.1:{port}/"
        self.latencies = []
        threading.Thread(target=self.measure, daemon=True).start()

    def run(self):
        stalled = None
        count = 0
        while True:
            if stalled is None or select.select([stalled.socket], [], [], 0)[0] and self.has_ended(stalled):
                stalled = Connection(self.url + "steady")
                stalled.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
                stalled.play("RTP/AVP/TCP;unicast;interleaved=0-1")
            count += 1
            with contextlib.suppress(OSError, SystemExit), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as rtp:
                rtp.bind(("127.0.0.1", 0))
                at = rtp.getsockname()[1]
                transport = (f"RTP/AVP;unicast;client_port={at}-{at}" if count % 2 else "RTP/AVP/TCP;unicast;interleaved=0-1")
                viewer = Connection(self.url + ("steady", "passing")[count // 2 % 2])
                viewer.play(transport)
                time.sleep(0.5)
                viewer.socket.close()
            time.sleep(0.5)

    @staticmethod
    def has_ended(viewer):
        """Whether the server has closed the connection. Reads nothing, so that the viewer stays stalled."""
        state = viewer.socket.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)[0]
        return state != 1  # ESTABLISHED

    def measure(self):
        """Milliseconds from a submit to the arrival of the frame, less the shortest seen so far."""
        fewest = None
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as rtp:
            rtp.bind(("127.0.0.1", 0))
            at = rtp.getsockname()[1]
            viewer = Connection(self.url + "steady")
            viewer.play(f"RTP/AVP;unicast;client_port={at}-{at + 1}")
            alive = time.monotonic()
            while True:
                packet = rtp.recv(2048)
                lateness = (time.monotonic() * 1000 - int.from_bytes(packet[4:8], "big") / 90) % (2**32 / 90)
                fewest = lateness if fewest is None else min(fewest, lateness)
                self.latencies.append(lateness - fewest)
                if time.monotonic() - alive > 20:
                    viewer.ask("GET_PARAMETER")
                    alive = time.monotonic()


def sample(process, page, load):
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
    latencies, load.latencies = load.latencies, []
    streams = json.loads(subprocess.run([BUILD / "tools" / "kavo-stat", page, "--json"], stdout=subprocess.PIPE, check=True).stdout)
    return {"frames": sum(s["sent_frames"] for s in streams["streams"] if s["name"] == "steady"), "kilobytes": int(re.search(r"VmRSS:\s+(\d+)", status)[1]),
            "descriptors": len(os.listdir(f"/proc/{process.pid}/fd")),
            "latency": statistics.median(latencies) if latencies else float("nan")}


def curves(samples, file):
    """Draws the curves below each other, each from 0 to its largest value."""
    width, height = 720, 110
    parts = []
    for row, (key, title) in enumerate((("kilobytes", "resident memory, kB"), ("descriptors", "descriptors"),
                                        ("latency", "latency, ms above the least"))):
        values = [s[key] for s in samples]
        top = max(v for v in values if v == v) or 1
        points = " ".join(f"{i * width / max(1, len(values) - 1):.1f},{height - v * (height - 20) / top:.1f}"
                          for i, v in enumerate(values) if v == v)
        parts.append(f'<g transform="translate(10 {row * (height + 20) + 10})"><text y="12">{title}: to {top:.4g}, '
                     f'{len(values)} s</text><path d="M0 {height}H{width}" stroke="#999"/>'
                     f'<polyline fill="none" stroke="#06c" points="{points}"/></g>')
    file.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" width="{width + 20}" height="{3 * (height + 20) + 10}" '
                    f'font-family="sans-serif" font-size="12">{"".join(parts)}</svg>\n')


def verdict(samples):
    """Which figures have grown between the end of the warm-up and the last quarter."""
    warm = min(WARM_UP, len(samples) // 3)
    before, after = samples[warm:warm + max(10, len(samples) // 8)], samples[-len(samples) // 4:]

    def middle(part, key):
        return statistics.median(s[key] for s in part if s[key] == s[key])

    grown = []
    settled = len(samples) >= 2 * WARM_UP  # before, some kinds of work have not been done often enough
    if settled and middle(after, "kilobytes") > middle(before, "kilobytes") + MEMORY_GROWTH:
        grown.append("memory")
    if max(s["kilobytes"] for s in samples) > samples[0]["kilobytes"] + MEMORY_FOR_VIEWERS:
        grown.append("memory for viewers")
    if max(s["descriptors"] for s in after) > max(s["descriptors"] for s in before) + 2:
        grown.append("descriptors")
    if middle(after, "latency") > 2 * middle(before, "latency") + LATENCY_GROWTH:
        grown.append("latency")
    for name, part in (("after the warm-up", before), ("at the end", after)):
        print(f"{name}: " + ", ".join(f"{key} {middle(part, key):.4g}" for key in ("kilobytes", "descriptors", "latency")))
    return grown


def main(seconds):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    page = BUILD / "soak.status"
    clock = BUILD / "soak.clock"
    clock.write_bytes(struct.pack("qq", 0, 0))
    process = subprocess.Popen([sys.executable, __file__, "host", str(port)], stdout=subprocess.PIPE, text=True,
                               env=os.environ | {"LD_PRELOAD": str(BUILD / "tests" / "libclockshim.so"),
                                                 "KAVO_CLOCK_FILE": str(clock), "KAVO_STREAM_STATUS": str(page)})
    samples = []
    try:
        process.stdout.readline()
        load = Load(port)
        load.start()
        begin = time.monotonic()
        while len(samples) < seconds:
            time.sleep(max(0, begin + len(samples) + 1 - time.monotonic()))
            if process.poll() is not None:
                sys.exit("the host has died")
            samples.append(sample(process, page, load))
            if len(samples) % 60 == 30:  # an hour on, and back
                with open(clock, "r+b") as file:
                    file.write(struct.pack("q", 3600 * (len(samples) // 60 % 2)))
    finally:
        process.kill()
        process.wait()
    (PROJECT / "build" / "soak.csv").write_text(
        "\n".join([",".join(samples[0])] + [",".join(f"{v:g}" for v in s.values()) for s in samples]) + "\n")
    curves(samples, PROJECT / "build" / "soak.svg")
    print(f"{samples[-1]['frames']} frames in {len(samples)} s")
    grown = verdict(samples)
    sys.exit(f"grown: {', '.join(grown)}" if grown else 0)


if len(sys.argv) == 3 and sys.argv[1] == "host":
    Host(int(sys.argv[2])).run()
else:
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 600)

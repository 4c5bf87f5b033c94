#!/usr/bin/env python3
"""links.py SECONDS: the two tables of "make bench TABLES=links": a JPEG stream over TCP
through slow links, beside gst-rtsp-server, and an H.264 stream over UDP through a link that
loses packets, with and without its reports to the server. Takes root, for network
namespaces and TUN devices of its own."""
import json
import os
import pathlib
import subprocess
import sys
import tempfile

import numpy

from rtsp import free_port

PROJECT = pathlib.Path(__file__).resolve().parent.parent
BUILD = PROJECT / "build" / "bench"
NEAR = "10.78.0.1"
WIDTH, HEIGHT, FPS, FRAMES = 320, 240, 25, 250
BITS, CODE_ROWS = 8, 16
LARGEST_DIFFERENCE = 20  # of a block of 16 x 16; encoding alone changes it by less


class Far:
    """A second network namespace."""

    def __enter__(self):
        os.unshare(os.CLONE_NEWNET)
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        self.process = subprocess.Popen(["unshare", "-n", "sh", "-c", "ip link set lo up; echo; exec sleep 3600"],
                                        stdout=subprocess.PIPE)
        self.process.stdout.readline()
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def run(self, *command, **options):
        return subprocess.run(["nsenter", "-t", str(self.process.pid), "-n", *map(str, command)], check=True,
                              stdout=subprocess.PIPE, **options).stdout


class Link:
    def __init__(self, far, *options):
        self.command = [PROJECT / "bench/slowlink.py", str(far.process.pid), *map(str, options)]

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, text=True)
        if self.process.stdout.readline().strip() != "up":
            sys.exit("the link did not come up")
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()


def slow_tcp(far, engine, delay, mbit, seconds):
    port = free_port()
    server = subprocess.Popen([BUILD / "bench/bench_server", engine, str(port), "1", "25", "40000", "600", "1"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        server.stdout.readline()
        with Link(far, "--delay", delay, "--mbit", mbit):
            return json.loads(far.run(PROJECT / "bench/linkviewer.py", "tcp", f"rtsp://{NEAR}:{port}/0", seconds))
    finally:
        server.kill()
        server.wait()


def film():
    """A moving texture; the top rows of each frame code its number in black and white."""
    random = numpy.random.default_rng(1)
    coarse = random.integers(40, 216, (HEIGHT // 16 + 1, (WIDTH + 3 * FRAMES) // 16 + 2)).astype(float)
    rows, columns = numpy.arange(HEIGHT) / 16, numpy.arange(WIDTH + 3 * FRAMES) / 16
    wide = numpy.stack([numpy.interp(columns, numpy.arange(coarse.shape[1]), row) for row in coarse])
    texture = numpy.stack([numpy.interp(rows, numpy.arange(wide.shape[0]), column) for column in wide.T], axis=1)
    frames = numpy.stack([texture[:, 3 * i:3 * i + WIDTH] for i in range(FRAMES)]).astype(numpy.uint8)
    for i in range(FRAMES):
        for bit in range(BITS):
            frames[i, :CODE_ROWS, bit * WIDTH // BITS:(bit + 1) * WIDTH // BITS] = 235 if i >> bit & 1 else 16
    return frames


def right(decoded, frames):
    """How many of the decoded frames are undamaged."""
    count = 0
    for frame in decoded:
        middles = frame[CODE_ROWS // 2, WIDTH // BITS // 2::WIDTH // BITS]
        number = sum(1 << bit for bit, value in enumerate(middles) if value > 128)
        if number < FRAMES:
            difference = numpy.abs(frame.astype(int) - frames[number])
            blocks = difference.reshape(HEIGHT // 16, 16, WIDTH // 16, 16).mean(axis=(1, 3))
            count += blocks.max() < LARGEST_DIFFERENCE
    return count


def lossy_udp(far, frames, input_file, seconds, *options):
    """For which share of the time the picture was damaged, and how many key frames a second the viewer got."""
    port = free_port()
    page = input_file + ".status"
    publisher = subprocess.Popen(
        [BUILD / "tools/kavo-publish", "--port", str(port), "--codec", "h264", "--bitrate", "500k", "--loop", input_file],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=os.environ | {"KAVO_STREAM_STATUS": page})
    try:
        while "Ctrl-C" not in (line := publisher.stdout.readline()):
            if not line:
                sys.exit("kavo-publish ended")
        with Link(far, "--delay", 10, *options):
            far.run(PROJECT / "bench/linkviewer.py", "udp", f"rtsp://{NEAR}:{port}/kavo", seconds, input_file + ".h264")
        status = json.loads(subprocess.run([BUILD / "tools/kavo-stat", page, "--json"], check=True,
                                           stdout=subprocess.PIPE).stdout)["streams"][0]
    finally:
        publisher.terminate()
        publisher.communicate()
    raw = subprocess.run(["ffmpeg", "-nostdin", "-v", "quiet", "-f", "h264", "-i", input_file + ".h264", "-fps_mode", "passthrough",
                          "-f", "rawvideo", "-pix_fmt", "gray", "-"], check=True, stdout=subprocess.PIPE).stdout
    decoded = numpy.frombuffer(raw, numpy.uint8).reshape(-1, HEIGHT, WIDTH)
    return 1 - right(decoded, frames) / (seconds * FPS), status["key_frames_requested"] / (status["encoded"] / FPS)


def main():
    seconds = int(sys.argv[1])
    with Far() as far, tempfile.TemporaryDirectory() as folder:
        print("| link | engine | whole frames | damaged | Mbit/s | age, s: median | oldest |\n|---|---|---|---|---|---|---|")
        for delay, mbit in ((100, 2), (150, 2), (30, 6)):
            for engine in ("ours", "gst"):
                r = slow_tcp(far, engine, delay, mbit, seconds)
                print(f"| {mbit} Mbit/s, {2 * delay} ms | {engine} | {r['frames']} | {r['damaged']} | {r['mbit']:.2f} "
                      f"| {r['age']:.2f} | {r['oldest']:.2f} |", flush=True)
        print("\n| loss | reports | damaged, of the time | key frames a second |\n|---|---|---|---|")
        frames = film()
        file = folder + "/film.mkv"
        subprocess.run(["ffmpeg", "-v", "error", "-f", "rawvideo", "-pix_fmt", "gray", "-s", f"{WIDTH}x{HEIGHT}", "-r", str(FPS),
                        "-i", "-", "-c:v", "ffv1", file], input=frames.tobytes(), check=True)
        for loss in (0.01, 0.3):
            for name, options in (("taken", ()), ("lost", ("--no-reports",))):
                damaged, key_frames = lossy_udp(far, frames, file, 2 * seconds, "--loss", loss, *options)
                print(f"| {100 * loss:g} % | {name} | {100 * damaged:.1f} % | {key_frames:.2f} |", flush=True)


main()

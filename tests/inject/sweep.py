#!/usr/bin/env python3
"""Makes one call fail: the n-th of a function, for every n or for a sample of so many runs. A host with viewers
executes all commands. Each must return a result, the process must survive, nothing may hang, and everything must
work afterwards. Usage: sweep.py LIBRARY SHIM all|RUNS [FUNCTION]"""
import ctypes
import itertools
import os
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import time
import types

TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path += [str(TESTS / "system"), str(TESTS.parent / "python")]
LIMIT = 180  # seconds
IMPATIENT = 0.25  # seconds to wait for a response that may never come
most_tries = 40  # of a command or a viewer; more only if more calls than that fail


def run_apart(library, shim, function, at, count):
    """Whether a run in a process of its own succeeds, and its output."""
    with tempfile.TemporaryDirectory() as folder:
        policy = pathlib.Path(folder, "policy.toml")
        policy.write_text('[access]\nallow = ["127.0.0.0/8"]\n[server]\nmax_viewers = 100\n')
        done = subprocess.run([sys.executable, __file__, "one", function, str(at), str(count)], timeout=2 * LIMIT, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env={
                                  **os.environ, "KAVO_STREAM": library, "LD_PRELOAD": shim, "KAVO_STREAM_CONFIG": str(policy),
                                  "KAVO_STREAM_STATUS": f"{folder}/status", "PYTHONDONTWRITEBYTECODE": "1"})
    if done.returncode != 0:
        print(f"FAILED: call {at} of {function} ({count} in a row): status {done.returncode}: {done.stdout}", flush=True)
    return done.returncode == 0, done.stdout


def sweep(library, shim, mode, only=None):
    counted = run_apart(library, shim, "none", 1, 1)[1].split()
    calls = {name: int(number) for name, number in zip(counted[::2], counted[1::2]) if only in (None, name) and number != "0"}
    runs = failed = 0
    for turn in itertools.count(1):
        before = runs
        for function, number in calls.items():
            # In a sample, memory runs out altogether at least once.
            at, kind = (turn, turn % 7) if mode == "all" else (random.randint(1, number), random.randrange(7) if runs else 3)
            if at <= number and (mode == "all" or runs < int(mode)):
                count = 30 if kind == 0 else 100 if kind == 3 and function == "malloc" else 1
                failed += not run_apart(library, shim, function, at, count)[0]
                runs += 1
        if runs == before:
            break
    print(f"{runs} runs, {failed} failed")
    return 0 if failed == 0 and runs > 0 else 1


if sys.argv[1] != "one":
    sys.exit(sweep(*sys.argv[1:]))

# In the process in which a call fails.
import kavo_stream
from publisher import Client, UdpClient
from pythonhost import *

shim = ctypes.CDLL(None)
shim.kavo_inject_call.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
shim.kavo_inject_arm.argtypes = [ctypes.c_char_p, ctypes.c_long, ctypes.c_long]
shim.kavo_inject_name.restype, shim.kavo_inject_calls.restype = ctypes.c_char_p, ctypes.c_long
command_function = ctypes.cast(kavo_stream._function, ctypes.c_void_p)
kavo_stream._function = lambda *arguments: shim.kavo_inject_call(command_function, *arguments)


def insist(*arguments):
    """Repeats a command until it succeeds, since a failed one must have changed nothing. A failed server returns 6
    until it is restarted."""
    first = again = call(*arguments)
    for tries in range(most_tries):
        if again == OK:
            break
        again = call(*arguments)
        assert again not in (ALREADY_THERE, NAME_IN_USE), f"{arguments} has half happened: {first}, then {again}"
    assert again in (OK, RESOURCE_FAILURE), f"{arguments} fails for ever: {first}, then {again}"


def attempt(viewer, method, *arguments):
    """None where there is no viewer or no answer."""
    try:
        return viewer and getattr(viewer, method)(*arguments)
    except (OSError, ValueError, IndexError, AssertionError):
        return None


def gets_a_packet(viewer):
    """Whether one has come. A connection that was closed is readable too."""
    return attempt(viewer, "has_packet") and attempt(viewer, "packet") is not None


def connect(kind, port, path, limit):
    try:
        viewer = kind(types.SimpleNamespace(port=port), path=path)
        viewer.socket.settimeout(limit)
        return viewer
    except OSError:
        return None


class Stream:
    """A session with a stream; the codec is None for encoded frames."""

    def __init__(self, name, codec):
        self.session = session_record(name)
        insist(CREATE_SESSION, self.session)
        self.name, self.number = name, 0
        if codec is None:
            record = EncodedStreamRecord(handle=self.session.handle, codec=Codec.H264)
            insist(CREATE_ENCODED_STREAM, record)
        else:
            record = stream_record(self.session.handle, dst_codec=codec)
            record.stream = None
            insist(CREATE_STREAM, record)
        self.stream, self.is_encoded = record.stream, codec is None

    def submit(self):
        own = {"handle": self.session.handle, "stream": self.stream}
        if not self.is_encoded:
            call(SUBMIT_FRAME, FrameRecord(frame=ctypes.addressof(pixels), **own))
            return
        is_key = self.number % 5 == 0
        data = (bytes.fromhex("000001 6764001EAC 000001 68EB") if is_key else b"") + bytes(
            [0, 0, 1, 0x65 if is_key else 0x41, 0x88, 1 + self.number // 200, 1 + self.number % 200])
        self.number += 1
        buffer = ctypes.create_string_buffer(data)
        call(SUBMIT_ENCODED, EncodedFrameRecord(data=ctypes.addressof(buffer), size=len(data), **own))


pixels = ctypes.create_string_buffer(b"\x5a" * (64 * 64 * 3))


def submit(streams, rounds):
    for _ in range(rounds):
        for stream in streams:
            stream.submit()
        time.sleep(0.002)


def checked_frames(viewer):
    """How many encoded frames have arrived since PLAY. None may refer to a missing one."""
    frames, last = 0, -1
    while viewer.has_packet() and (arrived := attempt(viewer, "packet")):
        is_rtp, packet = arrived
        if is_rtp and len(packet) == 16:
            number = (packet[14] - 1) * 200 + packet[15] - 1
            assert number == last + 1 or packet[12] == 0x65, f"frame {number} came after {last}"
            last, frames = number, frames + 1
    return frames


def require_service(port, streams, path):
    """A new viewer must get a frame from the server that met the failure, unless that server has failed."""
    for _ in range(most_tries):
        viewer = connect(Client, port, path, IMPATIENT)
        if attempt(viewer, "start"):
            submit(streams, 10)
            if gets_a_packet(viewer):
                return
        if call(GET_INFO, streams[0].session) == RESOURCE_FAILURE:
            return
    raise AssertionError(f"after the failure: no frame of {path}")


def script(is_strict):
    """Executes all commands, with viewers that join, stay and leave. If strict, everything must work."""
    def require(condition, what):
        assert condition or not is_strict, f"afterwards: {what}"

    port, limit = free_port(), 10 if is_strict else IMPATIENT
    insist(INIT, ctypes.c_uint32(port))
    streams = [Stream("jpeg", Codec.JPEG), Stream("h264", Codec.H264), Stream("encoded", None)]
    for stream in streams:
        # OpenH264 may stay broken after it has run out of memory.
        require(stream.stream is not None, f"no stream {stream.name}")
        tcp, udp = (connect(kind, port, stream.name, limit) for kind in (Client, UdpClient))
        for viewer in (tcp, udp):
            attempt(viewer, "ask", "DESCRIBE")
            require(attempt(viewer, "start"), f"no viewer of {stream.name}")
        submit(streams, 10)
        status = status_answer(b"GET /status.json HTTP/1.0\r\nHost: localhost\r\n\r\n", 2)
        require(b'"playing"' in status, "no status")
        seen = checked_frames(tcp) > 0 if stream.is_encoded and tcp else gets_a_packet(tcp)
        require(seen and gets_a_packet(udp), f"no frame of {stream.name}")
        attempt(tcp, "report")
        attempt(udp, "report")
        attempt(tcp, "ask", "PAUSE")
        submit(streams, 2)
        attempt(tcp, "ask", "PLAY")
        submit(streams, 2)
        attempt(udp, "ask", "TEARDOWN")
        require_service(port, streams, stream.name)
    call(GET_INFO, streams[0].session)
    insist(REMOVE_SESSION, streams[0].session.handle, 8)
    require(call(EXIT, None, 0) == OK, "no exit")


def descriptors():
    return len(os.listdir("/proc/self/fd"))


function, at, count = sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
signal.alarm(LIMIT)
script(True)
before = descriptors()
if count > most_tries:
    most_tries = 4 * count
shim.kavo_inject_arm(function.encode(), at, count)
script(False)
shim.kavo_inject_disarm()
call(EXIT, None, 0)
script(True)
assert descriptors() <= before, f"{descriptors() - before} descriptors are left"
for number in itertools.count():
    name = shim.kavo_inject_name(number)
    if name is None:
        break
    print(name.decode(), shim.kavo_inject_calls(number))

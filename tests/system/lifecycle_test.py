#!/usr/bin/env python3
"""Starting, stopping, unloading, and sessions that come and go while clients play."""
import _ctypes
import concurrent.futures
import ctypes
import os
import pathlib
import re
import resource
import signal
import socket
import tempfile
import time

# One descriptor is enough to load the library, but not for its event loop. Sanitizers need some themselves.
LIMIT = resource.getrlimit(resource.RLIMIT_NOFILE)
next_descriptor = os.dup(0)
os.close(next_descriptor)
if "LD_PRELOAD" not in os.environ:
    resource.setrlimit(resource.RLIMIT_NOFILE, (next_descriptor + 1, LIMIT[1]))
import kavo_stream
resource.setrlimit(resource.RLIMIT_NOFILE, LIMIT)
from publisher import Client, is_served, until
from pythonhost import *


def a_shortage_at_init_is_over_with_it():
    if not IS_SANITIZED:
        with descriptor_limit(next_descriptor + 1):
            for port in (20000, 20001, 20002):
                assert call(INIT, ctypes.c_uint32(port)) == RESOURCE_FAILURE
            assert call(CREATE_SESSION, session_record("a")) == NOT_STARTED
            assert call(EXIT, None, 0) == OK
    with live() as server:
        Client(server).start().sees_a_frame()


def a_port_held_on_one_address_family_is_refused():
    for family, any_address in ((socket.AF_INET, "0.0.0.0"), (socket.AF_INET6, "::")):
        with socket.socket(family) as held:
            if family == socket.AF_INET6:
                held.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
            held.bind((any_address, 0))
            held.listen()
            assert call(INIT, ctypes.c_uint32(held.getsockname()[1])) == RESOURCE_FAILURE, family


def a_port_given_up_with_viewers_is_taken_again_at_once():
    server = serve()
    for _ in range(20):
        with server, server.create_session("kavo") as session:
            stream = session.create_stream(320, 240)
            with submitting(lambda: stream.submit(FRAME)):
                for host in ("127.0.0.1", "[::1]"):
                    Client(server, host=host).start().sees_a_frame()
            port = server.port
        server = kavo_stream.Server(port)
        server.port = port
    server.close()


def a_watched_stream_takes_the_memory_of_its_frames():
    """Sanitizers use memory of their own."""
    for codec in () if IS_SANITIZED else (Codec.JPEG, Codec.H264):
        sizes, streams, viewers, sessions = [], [], [], []
        with serve() as server, submitting(lambda: [stream.submit(FRAME[:64 * 64 * 3]) for stream in list(streams)]):
            for number in range(21):
                sessions.append(server.create_session(str(number)))
                streams.append(sessions[-1].create_stream(64, 64, codec=codec))
                viewers.append(Client(server, path=str(number)).start())
                viewers[-1].sees_a_frame()
                sizes.append(int(re.search(r"VmSize:\s*(\d+)", pathlib.Path("/proc/self/status").read_text())[1]))
            # The first one's size has what the process needs once: heaps of its threads. OpenH264 reserves 6200 kB
            # of address space for scaling full HD, and never touches it.
            assert (sizes[-1] - sizes[0]) / 20 < (9200 if codec == Codec.H264 else 3000), f"{sizes} kB, {codec.name}"


def signals_of(task):
    """Masks of blocked, ignored and caught signals."""
    text = pathlib.Path("/proc/self/task", task, "status").read_text()
    return [int(re.search(rf"Sig{kind}:\s*(\w+)", text)[1], 16) for kind in ("Blk", "Ign", "Cgt")]


def the_hosts_signals_are_left_alone():
    """Signals go to the host's own threads, and its handler for SIGPIPE stays."""
    signal.signal(signal.SIGPIPE, lambda *_: None)
    before = signals_of(str(os.getpid()))
    with serve():
        tasks = pathlib.Path("/proc/self/task").iterdir()
        loop, = [task.name for task in tasks if (task / "comm").read_text() == "kavo-rtsp\n"]
        # All signals except those that cannot be blocked and the C library's own two. A sanitizer unblocks SIGSYS
        # for moments.
        wanted = 0xfffffffe7ffbfeff
        until(lambda: signals_of(loop)[0] & wanted == wanted, "signals are not blocked")
        assert signals_of(str(os.getpid())) == before
    assert signals_of(str(os.getpid())) == before
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)


def in_child(function):
    """Whether the function returns true in a forked child."""
    child = os.fork()
    if child == 0:
        ctypes.CDLL(None).exit(0 if function() else 1)  # with the library's destructors
    return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0


def a_forked_child_leaves_the_server_alone():
    def serves():
        with live() as server:
            Client(server).start().sees_a_frame()
        return True

    assert in_child(serves), "forked before the server starts, the child has a server of its own"
    with serve() as server, server.create_session("kavo") as session:
        stream = session.create_stream(320, 240)
        with submitting(lambda: stream.submit(FRAME)):
            viewer = Client(server).start()
            viewer.sees_a_frame()
        frame = FrameRecord(handle=stream._handle, stream=stream._stream, frame=NOBODY)
        port = ctypes.c_uint32(20000)
        assert in_child(lambda: (call(SUBMIT_FRAME, frame), call(INIT, port), call(EXIT, None, 0)) ==
                        (RESOURCE_FAILURE, RESOURCE_FAILURE, OK))
        with submitting(lambda: stream.submit(FRAME)):
            viewer.sees_a_frame()
            Client(server).start().sees_a_frame()


def an_empty_session_is_described_and_serves_nothing():
    with serve() as server, server.create_session("kavo"):
        client = Client(server)
        assert client.ask("DESCRIBE") == 404 and client.set_up() >= 400


def streams_encode_in_parallel_while_sessions_come_and_go():
    """Threads submit to sessions that other threads remove, until the server ends. Each call returns a result, and
    frames arrive."""
    with tempfile.NamedTemporaryFile("w") as policy:
        policy.write("[encoding]\nparallel = true\n")
        policy.flush()
        os.environ["KAVO_STREAM_CONFIG"] = policy.name
        server = serve()
        del os.environ["KAVO_STREAM_CONFIG"]

    def submit_until_refused(stream):
        try:
            while True:
                stream.submit(FRAME)
                time.sleep(0.005)
        except kavo_stream.Error as refusal:
            return refusal.result

    def come_and_go(name):
        for _ in range(5):
            session = server.create_session(name)
            stream = session.create_stream(320, 240, codec=Codec.H264 if name == "first" else Codec.JPEG)
            submitting = pool.submit(submit_until_refused, stream)
            Client(server, path=name).start().sees_a_frame()
            assert not submitting.done()
            assert call(REMOVE_SESSION, session._record.handle, 8) == OK  # while it submits
            assert submitting.result() == UNKNOWN

    steady = server.create_session("kavo").create_stream(320, 240)
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        ending = pool.submit(submit_until_refused, steady)
        viewer = Client(server).start()
        list(pool.map(come_and_go, ("first", "second", "third")))
        viewer.sees_a_frame()
        assert not ending.done()
        server.close()  # while the host submits
        assert ending.result() != OK


def unloading_ends_everything():
    server = serve()
    session = server.create_session("kavo")
    stream = session.create_stream(320, 240)
    with submitting(lambda: stream.submit(FRAME)):
        Client(server).start().sees_a_frame()
    library = ctypes.CDLL(os.environ["KAVO_STREAM"])
    for _ in range(2):  # this reference and the module's
        _ctypes.dlclose(library._handle)
    assert not is_served(server.port) and not is_served(server.port, socket.AF_INET6, "::1")
    assert IS_SANITIZED or "libkavo_stream" not in pathlib.Path("/proc/self/maps").read_text()


run(a_shortage_at_init_is_over_with_it, a_port_held_on_one_address_family_is_refused,
    a_port_given_up_with_viewers_is_taken_again_at_once, a_watched_stream_takes_the_memory_of_its_frames,
    the_hosts_signals_are_left_alone, a_forked_child_leaves_the_server_alone,
    an_empty_session_is_described_and_serves_nothing, streams_encode_in_parallel_while_sessions_come_and_go,
    unloading_ends_everything)
os._exit(0)  # the module would call the library

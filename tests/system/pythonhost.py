"""A host in Python, for tests: records and commands as they are, the server on a free port, a thread that submits
frames, and what is printed."""
import concurrent.futures
import contextlib
import ctypes
import os
import resource
import socket
import tempfile
import threading
import time

import kavo_stream
from kavo_stream import Codec
from publisher import free_port

IS_SANITIZED = "san" in os.environ.pop("LD_PRELOAD", "")  # this process alone, not its children
FRAME = bytes(320 * 240 * 3)

(SessionRecord, VideoRecord, StreamRecord, FrameRecord, EncodedStreamRecord, EncodedFrameRecord, StatusRecord) = (
    getattr(kavo_stream, f"_{name}")
    for name in ("Session", "Video", "Stream", "Frame", "EncodedStream", "EncodedFrame", "Status"))
(INIT, EXIT, CREATE_SESSION, REMOVE_SESSION, CREATE_STREAM, SUBMIT_FRAME, GET_INFO) = range(7)
(CREATE_ENCODED_STREAM, SUBMIT_ENCODED, GET_STATUS) = range(100, 103)
(OK, NOT_STARTED, ALREADY_THERE, INVALID_PARAMETER, NAME_IN_USE, UNKNOWN, RESOURCE_FAILURE, CODEC_FAILURE) = range(8)

_MEMORY = ctypes.create_string_buffer(400)
NOBODY = ctypes.addressof(_MEMORY)  # an address that is no session's and no stream's


def call(command, record=None, size=None):
    """record: a structure, an address, or None. size: the structure's own if it is not given."""
    is_address = record is None or isinstance(record, int)
    return kavo_stream._function(command, record if is_address else ctypes.addressof(record),
                                 ctypes.sizeof(record) if size is None else size)


def refused(kind, text, action):
    """Requires that the action throws, with this text."""
    try:
        action()
    except kind as error:
        assert text in str(error), f"{error!r}, not {text!r}"
        return error
    raise AssertionError(f"not refused: {text}")


def session_record(name, info="the info", description="the description"):
    return SessionRecord(name=name.encode("latin-1"), info=info.encode(), description=description.encode())


def stream_record(handle, media_type=0, has_video=True, **video):
    """For frames of 64x64 pixels in BGR24, published as JPEG, but for what video has."""
    record = StreamRecord(handle=handle, stream=NOBODY, media_type=media_type)
    record.video = ctypes.pointer(VideoRecord(**{
        "src_width": 64, "src_height": 64, "dst_width": 64, "dst_height": 64, "src_pixel_format": 3,
        "dst_pixel_format": 99, "dst_codec": Codec.JPEG, "frame_rate": 25, "bitrate": 800000, **video})) if has_video else None
    return record


def serve():
    """Returns a server, with its port and the beginning of its sessions' URLs."""
    for _ in range(20):  # another program may take the port
        port = free_port()
        with contextlib.suppress(kavo_stream.Error):
            server = kavo_stream.Server(port)
            server.port, server.root = port, f"rtsp://127.0.0.1:{port}/"
            return server
    raise AssertionError("no server starts")


@contextlib.contextmanager
def submitting(submit):
    """Calls submit() again and again, at the frame rate. It must not fail."""
    done = threading.Event()

    def work():
        while not done.is_set():
            submit()
            time.sleep(0.03)

    with concurrent.futures.ThreadPoolExecutor(1) as host:
        working = host.submit(work)
        try:
            yield
        finally:
            done.set()
        working.result()


@contextlib.contextmanager
def live(*names, codec=Codec.JPEG):
    """A server with streams that frames are submitted to."""
    with serve() as server, contextlib.ExitStack() as stack:
        sessions = [stack.enter_context(server.create_session(name)) for name in names or ("kavo",)]
        streams = [session.create_stream(320, 240, codec=codec) for session in sessions]
        stack.enter_context(submitting(lambda: [stream.submit(FRAME) for stream in streams]))
        yield server


def status_answer(request, limit=60):
    """The status server's whole response at a local socket; empty if it gives none."""
    with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as asking:
        asking.settimeout(limit)
        asking.connect(os.environ["KAVO_STREAM_STATUS"])
        asking.sendall(request)
        return b"".join(iter(lambda: asking.recv(65536), b""))
    return b""


@contextlib.contextmanager
def printed():
    """Keeps what this process prints meanwhile, the library too: a function that returns it."""
    before = os.dup(1), os.dup(2)
    with tempfile.TemporaryFile() as file:
        os.dup2(file.fileno(), 1)
        os.dup2(file.fileno(), 2)
        try:
            yield lambda: os.pread(file.fileno(), 65536, 0).decode()
        finally:
            for number, descriptor in enumerate(before, 1):
                os.dup2(descriptor, number)
                os.close(descriptor)


@contextlib.contextmanager
def descriptor_limit(count):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (count, hard))
    try:
        yield
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def run(*cases):
    for case in cases:
        case()
        print(f"{case.__name__}: passed", flush=True)

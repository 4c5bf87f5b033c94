"""Kavo Stream: live video over RTSP from a Python program's frames.

    import kavo_stream

    with kavo_stream.Server(8554) as server, server.create_session("camera") as session:
        stream = session.create_stream(640, 480)
        print(session.url, flush=True)
        while True:
            stream.submit(frame)   # an array of (480, 640, 3), as OpenCV gives it

The library is libkavo_stream.so.2, in an archive the one beside this module; the environment
variable KAVO_STREAM names another file. submit() encodes the frame without holding Python's
lock, so other threads keep running. Different threads may use different objects at the same
time; each object must be used by one thread at a time.
"""

from __future__ import annotations

import ctypes
import enum
import os
import pathlib
from types import TracebackType
from typing import Any

__all__ = ["Codec", "EncodedStream", "Error", "NameInUse", "PixelFormat", "Server", "Session", "Status", "Stream",
           "Wanted"]


class Error(RuntimeError):
    """The failure of a command; result is the library's result code."""

    def __init__(self, action: str, result: int) -> None:
        super().__init__(f"{action}: {_MEANINGS.get(result, 'unexpected failure')}")
        self.result = result


class NameInUse(Error):
    """Another session has this name."""


class NoResource(Error):
    """The port is in use, the policy file is invalid, or descriptors or memory ran out."""


class CodecFailure(Error):
    """The codec refuses the size, bitrate or frame, or OpenH264 is not installed."""


_MEANINGS = {1: "the server is not running", 2: "already exists", 3: "invalid value",
             4: "another session has this name", 5: "no such session or stream",
             6: "resource unavailable (port in use? the policy file? out of descriptors or memory?)",
             7: "the codec refused"}
_ERRORS: dict[int, type[Error]] = {4: NameInUse, 6: NoResource, 7: CodecFailure}


class Codec(enum.IntEnum):
    """Codecs; H265 is for EncodedStream only."""

    JPEG = 8
    H264 = 28
    H265 = 174


class PixelFormat(enum.IntEnum):
    """Layouts of raw frames. OpenCV uses BGR24."""

    YUV420P = 0
    RGB24 = 2
    BGR24 = 3
    YUV422P = 4
    YUVJ420P = 12
    YUVJ422P = 13
    ARGB = 27
    RGBA = 28
    ABGR = 29
    BGRA = 30


# The packed layouts: bytes per pixel, and FFmpeg's number.
_PACKED = {PixelFormat.RGB24: (3, 2), PixelFormat.BGR24: (3, 3), PixelFormat.ARGB: (4, 25), PixelFormat.RGBA: (4, 26),
           PixelFormat.ABGR: (4, 27), PixelFormat.BGRA: (4, 28)}


class _Session(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("name", ctypes.c_char * 20),
                ("info", ctypes.c_char * 20), ("description", ctypes.c_char * 20), ("url", ctypes.c_char * 260)]


class _Video(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int32) for name in (
        "reserved", "src_width", "src_height", "dst_width", "dst_height", "src_pixel_format", "dst_pixel_format",
        "src_codec", "dst_codec", "frame_rate", "bitrate")]


class _Stream(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("stream", ctypes.c_void_p),
                ("media_type", ctypes.c_int32), ("gap", ctypes.c_int32), ("video", ctypes.POINTER(_Video))]


class _Frame(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("stream", ctypes.c_void_p),
                ("frame", ctypes.c_void_p), ("reserved2", ctypes.c_void_p)]


class _EncodedStream(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("stream", ctypes.c_void_p),
                ("codec", ctypes.c_int32), ("bitrate", ctypes.c_int32), ("parameter_sets", ctypes.c_char_p),
                ("parameter_size", ctypes.c_int32), ("gap", ctypes.c_int32)]


class _EncodedFrame(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("stream", ctypes.c_void_p),
                ("data", ctypes.c_void_p), ("size", ctypes.c_uint64), ("time_ns", ctypes.c_int64),
                ("wanted", ctypes.c_uint32), ("gap", ctypes.c_uint32)]


class _Status(ctypes.Structure):
    _fields_ = [("reserved", ctypes.c_void_p), ("handle", ctypes.c_void_p), ("stream", ctypes.c_void_p),
                ("viewers", ctypes.c_uint32), ("wanted", ctypes.c_uint32), ("offered", ctypes.c_uint64),
                ("encoded", ctypes.c_uint64), ("unwatched", ctypes.c_uint64), ("failed", ctypes.c_uint64),
                ("sent_frames", ctypes.c_uint64), ("sent_bytes", ctypes.c_uint64)]


def _load() -> Any:
    name = "libkavo_stream.so.2"
    lib = pathlib.Path(__file__).resolve().parents[2]  # of an archive
    beside = next((str(path) for pattern in (name, f"*/{name}") for path in lib.glob(pattern)), name)
    named = os.environ.get("KAVO_STREAM") or beside
    function = ctypes.CDLL(named)["_Z9kv_StreamiPvi"]
    function.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
    return function


_function = _load()


def _call(action: str, command: int, record: ctypes._SimpleCData[Any] | ctypes.Structure) -> None:
    _check(action, _function(command, ctypes.addressof(record), ctypes.sizeof(record)))


def _check(action: str, result: int) -> None:
    if result != 0:
        raise _ERRORS.get(result, Error)(action, result)


def _text(text: str, what: str) -> bytes:
    encoded = text.encode()
    if not 1 <= len(encoded) <= 19 or any(byte < 32 or byte == 127 for byte in encoded):
        raise ValueError(f"{what} takes 1 to 19 bytes without control characters, not {text!r}")
    return encoded


def _address_of(view: memoryview) -> int:
    """The address of the bytes, also if they are read-only."""
    get = ctypes.pythonapi.PyObject_GetBuffer
    release = ctypes.pythonapi.PyBuffer_Release
    buffer = (ctypes.c_byte * 80)()  # a Py_buffer, which begins with the address
    if get(ctypes.py_object(view), buffer, 0) != 0:
        raise ValueError("the frame's memory cannot be read")
    address = ctypes.c_void_p.from_buffer(buffer).value or 0
    release(buffer)
    return address


class Wanted(enum.IntFlag):
    """Whether viewers need the next frame, and as what."""

    NOTHING = 0
    FRAME = 1
    KEY_FRAME = 2


class Status:
    """A stream's status; counts start when the stream is created."""

    def __init__(self, record: _Status) -> None:
        #: how many are playing or about to
        self.viewers: int = record.viewers
        #: whether a frame, or a key frame, is wanted
        self.wanted = Wanted(record.wanted)
        self.offered: int = record.offered
        self.encoded: int = record.encoded
        self.unwatched: int = record.unwatched
        self.failed: int = record.failed
        self.sent_frames: int = record.sent_frames
        #: bytes of RTP packets sent, to all viewers
        self.sent_bytes: int = record.sent_bytes

    def __repr__(self) -> str:
        return "Status(" + ", ".join(f"{name}={value!r}" for name, value in vars(self).items()) + ")"


class _Published:
    """The common base of both kinds of streams."""

    def __init__(self, handle: int, stream: int) -> None:
        self._handle = handle
        self._stream = stream

    @property
    def status(self) -> Status:
        """The stream's status. Does not wait for submits."""
        record = _Status(handle=self._handle, stream=self._stream)
        _call("asking for the status", 102, record)
        return Status(record)


class _FullRange:
    """Converts RGB to full-range YUV 4:2:0, which JPEG viewers expect, with libswscale. See Stream."""

    _library: Any = None

    @classmethod
    def library(cls) -> Any:
        """libswscale, whatever its version, or None."""
        for number in range(15, 4, -1):
            try:
                cls._library = cls._library or ctypes.CDLL(f"libswscale.so.{number}")
            except OSError:
                pass
        return cls._library

    def __init__(self, width: int, height: int, ffmpeg_format: int, pixel_size: int) -> None:
        sws = self.library()
        sws.sws_getContext.restype = sws.sws_getCoefficients.restype = ctypes.c_void_p
        # Without accurate rounding, its fast path for BGR24 supports only limited range.
        point, accurate_rounding = 0x10, 0x40000
        self._scaler = ctypes.c_void_p(sws.sws_getContext(width, height, ffmpeg_format, width, height, 0,
                                                          point | accurate_rounding, None, None, None))
        bt601 = ctypes.c_void_p(sws.sws_getCoefficients(5))
        sws.sws_setColorspaceDetails(self._scaler, bt601, 1, bt601, 1, 0, 1 << 16, 1 << 16)
        # libswscale reads a little past the end, so it gets a padded copy.
        self._size = width * height * pixel_size
        self._source = (ctypes.c_uint8 * (self._size + 64))()
        half = (width + 1) // 2
        luma, chroma = width * height, half * ((height + 1) // 2)
        self.frame = (ctypes.c_uint8 * (luma + 2 * chroma))()
        begin = ctypes.addressof(self.frame)
        self._from = (ctypes.c_void_p * 4)(ctypes.addressof(self._source))
        self._from_strides = (ctypes.c_int * 4)(width * pixel_size)
        self._to = (ctypes.c_void_p * 4)(begin, begin + luma, begin + luma + chroma)
        self._to_strides = (ctypes.c_int * 4)(width, half, half)
        self._height = height

    def convert(self, address: int) -> int:
        ctypes.memmove(self._source, address, self._size)
        self.library().sws_scale(self._scaler, self._from, self._from_strides, 0, self._height, self._to,
                                 self._to_strides)
        return ctypes.addressof(self.frame)

    def __del__(self) -> None:
        if self._library is not None and hasattr(self, "_scaler"):
            self._library.sws_freeContext(self._scaler)


class Stream(_Published):
    """A session's one video stream, for raw frames.

    JPEG from RGB frames is published in full range, so that white is white, if libswscale is
    installed (as part of FFmpeg); otherwise in limited range, which viewers show slightly grey."""

    def __init__(self, handle: int, stream: int, width: int, height: int, pixel_format: PixelFormat,
                 full_range: _FullRange | None) -> None:
        super().__init__(handle, stream)
        self._width, self._height, self._format = width, height, pixel_format
        self._full_range = full_range
        self._record = _Frame(handle=handle, stream=stream)

    @property
    def shape(self) -> tuple[int, ...]:
        """The shape of the arrays that submit() accepts."""
        if self._format in _PACKED:
            return self._height, self._width, _PACKED[self._format][0]
        return (self.frame_size,)

    @property
    def frame_size(self) -> int:
        """The size of one frame in bytes, without padding."""
        pixels, half = self._width * self._height, (self._width + 1) // 2
        if self._format in _PACKED:
            return pixels * _PACKED[self._format][0]
        rows = self._height if self._format in (PixelFormat.YUV422P, PixelFormat.YUVJ422P) else (self._height + 1) // 2
        return pixels + 2 * half * rows

    def submit(self, frame: Any) -> None:
        """Publishes a frame: an array of that shape, or frame_size bytes of any object with the buffer protocol.
        The frame is read during the call only. Returns when it is encoded, or at once if nobody is watching."""
        view = memoryview(frame)
        is_plain = view.format in ("B", "b", "c") and view.c_contiguous and view.nbytes == self.frame_size
        shape = view.shape or ()
        if not is_plain or (len(shape) > 1 and self._format in _PACKED and shape[:2] != self.shape[:2]):
            raise ValueError(f"a frame is {self.frame_size} bytes, or an array of bytes of the shape {self.shape}, "
                             f"contiguous in memory; not {view.nbytes} bytes of format {view.format!r}, shape "
                             f"{view.shape}, strides {view.strides}")
        address = _address_of(view)
        if self._full_range is not None and self.status.wanted:
            address = self._full_range.convert(address)
        self._record.frame = address
        _call("submitting a frame", 5, self._record)


class EncodedStream(_Published):
    """A session's one video stream, for frames from the program's own encoder."""

    def submit(self, data: Any, time_ns: int = 0) -> Wanted:
        """Publishes one access unit (H.264 and H.265: Annex B, without B-frames) or one JPEG image, from any object
        with the buffer protocol. time_ns is the capture time by time.monotonic_ns(); 0: now. Returns whether
        viewers need the next frame, and as what."""
        view = memoryview(data)
        if not view.c_contiguous:
            raise ValueError(f"a frame is contiguous in memory; these bytes have strides of {view.strides}")
        record = _EncodedFrame(handle=self._handle, stream=self._stream, data=_address_of(view), size=view.nbytes,
                               time_ns=time_ns)
        _call("submitting an encoded frame", 101, record)
        return Wanted(record.wanted)


class Session:
    """One RTSP URL. close(), or leaving its with statement, removes it and disconnects its viewers."""

    def __init__(self, server: Server, name: str, description: str) -> None:
        self._server = server
        self._record = _Session(name=_text(name, "a session's name"), info=_text(description, "a description"),
                                description=_text(description, "a description"))
        _call("creating a session", 2, self._record)

    @property
    def url(self) -> str:
        """The URL, with the address that the machine had when the session was created."""
        return bytes(self._record.url).decode()

    def create_stream(self, width: int, height: int, pixel_format: PixelFormat = PixelFormat.BGR24,
                      codec: Codec = Codec.JPEG, frame_rate: int = 25, bits_per_second: int = 0,
                      size: tuple[int, int] | None = None) -> Stream:
        """Creates the session's stream; a session has at most one. width and height are those of the submitted
        frames; size is that of the published ones, by default the same. bits_per_second: 0 for a default that
        suits the size."""
        out_width, out_height = size or (width, height)
        jpeg = codec == Codec.JPEG
        bits = bits_per_second or out_width * out_height * frame_rate * (1.2 if jpeg else 0.1)
        full_range = None
        if jpeg and pixel_format in _PACKED and size in (None, (width, height)) and _FullRange.library() is not None:
            pixel_size, number = _PACKED[pixel_format]
            full_range = _FullRange(width, height, number, pixel_size)
        video = _Video(src_width=width, src_height=height, dst_width=out_width, dst_height=out_height,
                       src_pixel_format=PixelFormat.YUV420P if full_range else pixel_format, dst_codec=codec,
                       frame_rate=frame_rate, bitrate=max(1, int(bits / frame_rate if jpeg else bits)))
        record = _Stream(handle=self._record.handle, video=ctypes.pointer(video))
        _call("creating a stream", 4, record)
        return Stream(self._record.handle, record.stream, width, height, pixel_format, full_range)

    def create_encoded_stream(self, codec: Codec, parameter_sets: bytes = b"", kilobits: int = 0) -> EncodedStream:
        """Creates the session's stream for encoded frames. parameter_sets: SPS and PPS, for H.265 also the VPS, in
        Annex B form; empty: taken from the frames. kilobits per second are for the SDP; 0: unknown."""
        record = _EncodedStream(handle=self._record.handle, codec=codec, bitrate=kilobits,
                                parameter_sets=parameter_sets or None, parameter_size=len(parameter_sets))
        _call("creating a stream of encoded frames", 100, record)
        return EncodedStream(self._record.handle, record.stream)

    def close(self) -> None:
        """Removes the session and disconnects its viewers."""
        handle, self._record.handle = self._record.handle, None
        if handle is not None and self._server.is_open:
            _function(3, handle, 8)

    def __enter__(self) -> Session:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()


class Server:
    """The process's RTSP server, on all addresses. close(), or leaving its with statement, stops it and ends all
    sessions."""

    def __init__(self, port: int = 8554) -> None:
        if not 1 <= port <= 65535:
            raise ValueError(f"a port is a number from 1 to 65535, not {port}")
        _call("starting the server", 0, ctypes.c_uint32(port))
        self.is_open = True

    def create_session(self, name: str, description: str = "live video") -> Session:
        """Creates a session. The name is the last part of the URL; players show the description as the title."""
        return Session(self, name, description)

    def close(self) -> None:
        """Stops the server."""
        if self.is_open:
            self.is_open = False
            _function(1, None, 0)

    def __enter__(self) -> Server:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

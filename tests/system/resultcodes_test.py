#!/usr/bin/env python3
"""Every command with valid and invalid records. A failed command changes nothing."""
import ctypes

from pythonhost import *

TEXTS = ("name", "info", "description")


def unterminated(field):
    record = session_record("other")
    ctypes.memset(ctypes.addressof(record) + getattr(SessionRecord, field).offset, ord("x"), 20)
    return record


def refused(result, command, record, what=""):
    before = bytes(record)
    got = call(command, record)
    assert got == result, f"{command}: {got}, not {result}: {what or record}"
    assert bytes(record) == before, f"{command} has changed the record: {what or record}"


refused(NOT_STARTED, CREATE_SESSION, session_record("other"))
refused(NOT_STARTED, CREATE_SESSION, session_record(""))
refused(UNKNOWN, GET_INFO, session_record("other"))
assert call(REMOVE_SESSION, NOBODY, 8) == UNKNOWN
assert call(EXIT, None, 0) == call(EXIT, NOBODY, -7) == OK
for command in (7, 99, 103, -1, 2**31 - 1, -2**31):
    assert call(command, None, 0) == INVALID_PARAMETER, command

port = ctypes.c_uint32(free_port())
assert [call(INIT, None, 4), call(INIT, port, 0), call(INIT, port, 8)] == [INVALID_PARAMETER] * 3
for wrong in (0, 65536, 2**32 - 1):
    refused(INVALID_PARAMETER, INIT, ctypes.c_uint32(wrong))
server = serve()
refused(ALREADY_THERE, INIT, port)
refused(ALREADY_THERE, INIT, ctypes.c_uint32(0))

for command in (CREATE_SESSION, REMOVE_SESSION, CREATE_STREAM, SUBMIT_FRAME, GET_INFO, CREATE_ENCODED_STREAM,
                SUBMIT_ENCODED, GET_STATUS):
    for size in (-1, 0, 4, 9, 39, 41, 47, 49, 55, 57, 79, 81, 335, 337):
        assert call(command, NOBODY, size) == INVALID_PARAMETER, f"{command}, size {size}"
    for size in (8, 40, 48, 56, 80, 336):
        assert call(command, None, size) == INVALID_PARAMETER, command

own = session_record("stream")
assert call(CREATE_SESSION, own) == OK
refused(NAME_IN_USE, CREATE_SESSION, session_record("stream"))
refused(NAME_IN_USE, CREATE_SESSION, session_record("stream", info=""))
for field in TEXTS:
    refused(INVALID_PARAMETER, CREATE_SESSION, session_record(**{"name": "other", field: ""}), f"no {field}")
    refused(INVALID_PARAMETER, CREATE_SESSION, unterminated(field), f"{field} without an end")
    for text in ("a\r\nm=audio 0 RTP/A", "a\x7f", "\x01"):
        record = session_record(**{"name": "other", field: text})
        refused(INVALID_PARAMETER, CREATE_SESSION, record, f"{field} {text!r}")
assert call(CREATE_SESSION, session_record("T\xfcr")) == OK
longest = session_record("nineteen-characters")
assert call(CREATE_SESSION, longest) == OK
assert longest.url.startswith(b"rtsp://") and longest.url.endswith(f":{server.port}/nineteen-characters".encode())
info = SessionRecord(handle=longest.handle)
assert call(GET_INFO, info) == OK
assert (info.name, info.info, info.description, info.url) == (longest.name, b"the info", b"the description", longest.url)
assert [call(REMOVE_SESSION, longest.handle, 8) for _ in range(2)] == [OK, UNKNOWN]
refused(UNKNOWN, GET_INFO, SessionRecord(handle=NOBODY))
assert call(CREATE_SESSION, session_record("nineteen-characters")) == OK

frame = ctypes.create_string_buffer(64 * 64 * 3)
submit = FrameRecord(handle=own.handle, stream=own.handle, frame=ctypes.addressof(frame))
refused(UNKNOWN, SUBMIT_FRAME, submit, "a session without a stream")
for result, changes in (
        (INVALID_PARAMETER, {"media_type": 1}), (INVALID_PARAMETER, {"media_type": 2}),
        (INVALID_PARAMETER, {"media_type": -1}), (INVALID_PARAMETER, {"has_video": False}), (UNKNOWN, {"handle": NOBODY}),
        (INVALID_PARAMETER, {"dst_codec": 13}), (INVALID_PARAMETER, {"dst_codec": 27}),  # the linked FFmpeg's H.264
        (INVALID_PARAMETER, {"src_codec": 1}), (INVALID_PARAMETER, {"src_pixel_format": 8}),  # grey
        (INVALID_PARAMETER, {"src_width": 0}), (INVALID_PARAMETER, {"bitrate": 0}), (CODEC_FAILURE, {"dst_width": 2044}),
        (CODEC_FAILURE, {"dst_width": 642}), (CODEC_FAILURE, {"dst_codec": 28, "dst_height": 2306})):
    refused(result, CREATE_STREAM, stream_record(**{"handle": own.handle, **changes}), changes)
created = stream_record(own.handle)
assert call(CREATE_STREAM, created) == OK
refused(ALREADY_THERE, CREATE_STREAM, stream_record(own.handle), "a second stream")
refused(INVALID_PARAMETER, CREATE_STREAM, stream_record(own.handle, media_type=1), "media type 1 beside a stream")
refused(UNKNOWN, SUBMIT_FRAME, submit, "another stream's id")
submit.stream = created.stream
assert call(SUBMIT_FRAME, submit) == OK
refused(INVALID_PARAMETER, SUBMIT_FRAME, FrameRecord(handle=own.handle, stream=created.stream), "no frame")
refused(UNKNOWN, SUBMIT_FRAME, FrameRecord(handle=NOBODY, stream=created.stream), "no session, and no frame")

server.close()
assert call(REMOVE_SESSION, own.handle, 8) == UNKNOWN
assert call(SUBMIT_FRAME, submit) == UNKNOWN
with serve():
    pass
print("passed")

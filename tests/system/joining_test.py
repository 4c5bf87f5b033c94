#!/usr/bin/env python3
"""Viewers that join an H.264 stream begin with a complete frame, at once. There is a regular key frame every 50
frames."""
from publisher import REPORT, UdpClient, until
from pythonhost import FRAME, Codec, serve, submitting

submitted = 0


def submit():
    global submitted
    stream.submit(FRAME)
    submitted += 1


def wait_for_frames(count):
    end = submitted + count
    until(lambda: submitted >= end, "nothing is submitted")


# RTP-Info names the first packet if it is known.
with serve() as server, server.create_session("kavo") as session:
    stream = session.create_stream(320, 240, codec=Codec.H264)
    with submitting(submit):
        first = UdpClient(server).start()
        assert ";seq=" in first.response and first.next_nal_type() == 7
        wait_for_frames(18)
        second = UdpClient(server).start()
        assert ";rtptime=" in second.response and ";seq=" not in second.response, second.response
        asked = submitted
        assert second.next_nal_type() == 7 and submitted - asked < 25
        for viewer in (first, second):
            assert viewer.ask("TEARDOWN") == 200

        # A viewer that loses packets gets a key frame: it asks by a report of lost packets, by RFC 4585's picture
        # loss indication, and by RFC 5104's full intra request.
        for request in (lambda ssrc, highest: bytes([0x81, 201, 0, 7, 0, 0, 0, 9]) + ssrc + bytes([12, 0, 0, 3, 0, 0]) +
                        highest + bytes(12),
                        lambda ssrc, _: REPORT + bytes([0x81, 206, 0, 2, 0, 0, 0, 9]) + ssrc,
                        lambda ssrc, _: REPORT + bytes([0x84, 206, 0, 4, 0, 0, 0, 9]) + bytes(4) + ssrc + b"\1\0\0\0"):
            viewer = UdpClient(server).start()
            packet = viewer.rtp_packet()
            wait_for_frames(18)
            viewer.report(request(packet[8:12], packet[2:4]))
            asked = submitted
            while viewer.next_nal_type() != 7:
                assert submitted - asked < 25
            assert viewer.ask("TEARDOWN") == 200
print("passed")

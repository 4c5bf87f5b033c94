#!/usr/bin/env python3
"""The life of a viewer: DESCRIBE, PLAY, PAUSE, and the end of the stream. Usage: viewing_test.py jpeg|h264"""
import sys

from publisher import Client, UdpClient
from pythonhost import FRAME, Codec, live, run, serve, submitting

CODEC = Codec[sys.argv[1].upper()]


def begins(viewer):
    """Frames arrive, and H.264 begins with a key frame."""
    assert CODEC == Codec.JPEG or viewer.next_nal_type() == 7
    viewer.sees_a_frame()


def is_quiet(viewer, witness):
    """Whether no RTP packet arrives while the witness sees ten frames, apart from what has arrived."""
    while viewer.has_packet():
        viewer.packet()
    for _ in range(10):
        witness.sees_a_frame()
    while viewer.has_packet():
        if viewer.packet()[0]:
            return False
    return True


def pause_stops_one_viewer_and_play_brings_it_back():
    with live(codec=CODEC) as server:
        for kind in (Client, UdpClient):
            witness, viewer = UdpClient(server).start(), kind(server).start()
            begins(viewer)
            for _ in range(2):
                assert viewer.ask("PAUSE") == viewer.ask("PAUSE") == 200
                assert is_quiet(viewer, witness), kind
                assert viewer.ask("PLAY") == 200
                begins(viewer)
            witness.sees_a_frame()
            assert witness.ask("TEARDOWN") == 200  # the only viewer may pause too
            assert viewer.ask("PAUSE") == viewer.ask("PLAY") == 200
            begins(viewer)
            assert viewer.ask("TEARDOWN") == 200


def the_response_to_play_is_the_first_thing_on_the_connection():
    """Some clients take anything that precedes it for the response."""
    with live(codec=CODEC) as server:
        alone = Client(server).start()
        begins(alone)
        for number in range(10):
            another = Client(server)
            assert number % 2 or another.ask("DESCRIBE") == 200
            another.start()
            assert not another.packet()[0], "a sender report has the time of the first frame"
            assert another.packet()[0] and not another.early
        assert not alone.early


def the_end_of_a_session_sends_bye():
    """A removed session's connections are closed; a server that ends closes all."""
    for ends_server in (False, True):
        with serve() as server, server.create_session("kavo") as session, server.create_session("other"):
            stream = session.create_stream(320, 240, codec=CODEC)
            viewers = Client(server).start(), UdpClient(server).start(), UdpClient(server, host="[::1]").start()
            with submitting(lambda: stream.submit(FRAME)):
                for viewer in viewers:
                    viewer.sees_a_frame()
            server.close() if ends_server else session.close()
            for viewer in viewers:
                assert viewer.receives_bye() and viewer.is_closed()


def a_description_is_for_who_asks_and_disturbs_nobody():
    """It takes no frame from the viewers, and has an address of the client's own family."""
    with live(codec=CODEC) as server:
        viewer = Client(server).start()
        begins(viewer)
        last = None
        for host, family in (("127.0.0.1", "IP4 0.0.0.0"), ("[::1]", "IP6 ::"), ("127.0.0.1", "IP4 0.0.0.0")):
            asking = Client(server, host=host)
            assert asking.ask("DESCRIBE") == 200
            description = asking.body.decode()
            assert f"c=IN {family}\r\n" in description and f" IN {family[:4]}" in description, description
            for _ in range(20):
                number = int.from_bytes(viewer.rtp_packet()[2:4])
                assert last is None or number == (last + 1) % 65536
                last = number


def two_sessions_share_a_connection_on_channels_of_their_own():
    with live(codec=CODEC) as server:
        viewer = Client(server)
        for asked, given in (("interleaved=4-5", "interleaved=4-5"), ("unicast", "interleaved=0-1")):
            viewer.session = None
            assert given in viewer.start(f"RTP/AVP/TCP;{asked}").setup, viewer.setup
        channels = set()
        while not {0, 4} <= channels:
            channels.add(viewer.interleaved()[0])
        viewer.session = None
        assert viewer.set_up("RTP/AVP/TCP;interleaved=5-6") == 461, "another session's channel"


run(pause_stops_one_viewer_and_play_brings_it_back, the_response_to_play_is_the_first_thing_on_the_connection,
    the_end_of_a_session_sends_bye, a_description_is_for_who_asks_and_disturbs_nobody,
    two_sessions_share_a_connection_on_channels_of_their_own)

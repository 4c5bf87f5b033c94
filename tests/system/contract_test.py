#!/usr/bin/env python3
"""What clients rely on, as contract_test.cpp has what hosts rely on. Numbers and texts are written out here, not taken
from the library."""
import pathlib
import re

from publisher import Client, UdpClient, is_served
from pythonhost import *

HEAD = (r"v=0\r\no=- \d+ 1 IN IP4 [\d.]+\r\ns=the description\r\ni=the info\r\nt=0 0\r\na=tool:[^\r]*\r\n"
        r"a=type:broadcast\r\na=control:\*\r\na=range:npt=now-\r\na=x-qt-text-nam:the description\r\n"
        r"a=x-qt-text-inf:the info\r\n")
DESCRIPTIONS = {
    "jpeg": r"m=video 0 RTP/AVP 26\r\nc=IN IP4 0\.0\.0\.0\r\nb=AS:64\r\na=control:track1\r\n",
    "h264": r"m=video 0 RTP/AVP 96\r\nc=IN IP4 0\.0\.0\.0\r\nb=AS:1048576\r\na=rtpmap:96 H264/90000\r\n"
            r"a=fmtp:96 packetization-mode=1;profile-level-id=42[0-9A-F]{4};sprop-parameter-sets=Z0L[^,]+,aM[^,]+\r\n"
            r"a=control:track1\r\n"}


if not is_served(8554):
    assert call(INIT, None, 0) == OK
    assert is_served(8554), "another default port"
    call(EXIT, None, 0)

with serve() as server:
    for name, codec in (("jpeg", 8), ("h264", 28)):
        session = session_record(name)
        assert call(CREATE_SESSION, session) == OK
        assert call(CREATE_STREAM, stream_record(session.handle, dst_codec=codec)) == OK
        client = Client(server, path=name)
        assert client.ask("DESCRIBE") == 200
        assert re.fullmatch(HEAD + DESCRIPTIONS[name], client.body.decode()), client.body
        setup = UdpClient(server, path=name).start().setup
        rtp, rtcp = map(int, re.search(r"server_port=(\d+)-(\d+)", setup).groups())
        # As many as tests beside this one may hold.
        assert rtp in range(6970, 7500, 2) and rtcp == rtp + 1, setup
        assert re.search(r"\r\nSession: \w+;timeout=65(\r\n|$)", setup), setup
    threads = [(task / "comm").read_text() for task in pathlib.Path("/proc/self/task").iterdir()]
    assert "kavo-rtsp\n" in threads, threads
print("passed")

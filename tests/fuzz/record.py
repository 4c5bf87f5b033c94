#!/usr/bin/env python3
"""record.py KAVO_PUBLISH: records what players say to a stream, as seeds for
rtspsession_fuzz in corpus/rtspsession. Their own figures (sessions, ports, URLs) become
placeholders."""
import pathlib
import re
import select
import shlex
import socket
import subprocess
import sys
import tempfile

CORPUS = pathlib.Path(__file__).parent / "corpus" / "rtspsession"
PLAYERS = {
    "ffmpeg-tcp": "ffmpeg -v error -rtsp_transport tcp -i {url} -frames:v 3 -f null -",
    "ffmpeg-udp": "ffmpeg -v error -rtsp_transport udp -i {url} -frames:v 3 -f null -",
    "gst-tcp": "gst-launch-1.0 -q rtspsrc location={url} protocols=tcp ! fakesink num-buffers=20",
    "gst-udp": "gst-launch-1.0 -q rtspsrc location={url} protocols=udp ! fakesink num-buffers=20",
    "mpv": "mpv --no-config --vo=null --ao=null --frames=3 {url}",
    "openrtsp-tcp": "openRTSP -t -d 1 {url}",
    "openrtsp-udp": "openRTSP -d 1 {url}",
}


def publish(program):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    process = subprocess.Popen([program, "--port", str(port), "--size", "64x64"], stdout=subprocess.PIPE, text=True)
    while "Ctrl-C" not in process.stdout.readline():
        pass
    return process, port


def record(command, port):
    """What the player sends over its connection, passed on to the server and back."""
    said = []
    with socket.create_server(("127.0.0.1", 0)) as door, tempfile.TemporaryDirectory() as folder:
        own = door.getsockname()[1]
        player = subprocess.Popen(shlex.split(command.format(url=f"rtsp://127.0.0.1:{own}/kavo")), cwd=folder,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        door.settimeout(20)
        client, _ = door.accept()
        with client, socket.create_connection(("127.0.0.1", port)) as server:
            while True:
                ready = select.select([client, server], [], [], 10)[0]
                if not ready:
                    break
                for source, sink in ((client, server), (server, client)):
                    if source in ready:
                        try:
                            data = source.recv(65536)
                        except ConnectionResetError:
                            data = b""
                        if not data:
                            player.wait(10)
                            return said
                        if source is client:
                            said.append(data)
                        sink.sendall(data)
        player.kill()
    return said


def script(said):
    steps = []
    for data in said:
        if data[:1] != b"$":
            data = re.sub(rb"rtsp://127.0.0.1:\d+/kavo", b"{U}", data)
            data = re.sub(rb"Session: \w+", b"Session: {S}", data)
            data = re.sub(rb"client_port=\d+-\d+", b"client_port={P}", data)
        steps.append(b"@s 0 %d\n%s\n" % (len(data), data))
        steps.append(b"@h 0 0\n\n")
    return b"".join(steps[:60])


process, port = publish(sys.argv[1])
CORPUS.mkdir(parents=True, exist_ok=True)
try:
    for name, command in PLAYERS.items():
        (CORPUS / name).write_bytes(script(record(command, port)))
        print(name, (CORPUS / name).stat().st_size)
finally:
    process.terminate()

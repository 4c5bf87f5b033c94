"""kavo-publish on a free port, and its RTSP clients, for tests in Python."""
import os
import pathlib
import select
import socket
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))
import rtsp
from rtsp import free_port

LIMIT = 60  # seconds that anything may take on a busy machine
REPORT = bytes([0x80, 201, 0, 1, 0, 0, 0, 9])  # a receiver report without a block: a keep-alive


def until(condition, what):
    end = time.monotonic() + LIMIT
    while not condition():
        assert time.monotonic() < end, what
        time.sleep(0.02)


def is_served(port, family=socket.AF_INET, host="127.0.0.1"):
    with socket.socket(family) as client:
        return client.connect_ex((host, port)) == 0


class Publisher:
    """policy: the text of its policy file. clock_shim: a library that lets set_clocks() shift its clocks."""

    def __init__(self, program, codec="jpeg", policy=None, clock_shim=None, descriptors=256):
        self.folder = tempfile.TemporaryDirectory()
        self.policy, self.errors, self.clock = (
            os.path.join(self.folder.name, name) for name in ("policy", "errors", "clock"))
        environment = dict(os.environ)
        if policy is not None:
            self.write(policy)
            environment["KAVO_STREAM_CONFIG"] = self.policy
        if clock_shim is not None:
            pathlib.Path(self.clock).write_bytes(bytes(16))
            environment |= {"LD_PRELOAD": clock_shim, "KAVO_CLOCK_FILE": self.clock}
        for _ in range(5):  # another program may take the port
            self.port = free_port()
            with open(self.errors, "w") as errors:
                self.process = subprocess.Popen(
                    ["sh", "-c", f'ulimit -n {descriptors}; exec "$0" "$@"', program, "--port", str(self.port),
                     "--size", "320x240", "--codec", codec], stdout=subprocess.PIPE, stderr=errors, text=True, env=environment)
            if any("Ctrl-C" in line for line in self.process.stdout):
                break

    def write(self, policy):
        with open(self.policy + ".new", "w") as file:
            file.write(policy)
        os.rename(self.policy + ".new", self.policy)

    def set_clocks(self, wall, monotonic):
        """By how many seconds they are ahead of the machine's."""
        with open(self.clock, "r+b") as file:
            file.write(struct.pack("=qq", wall, monotonic))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def said(self):
        with open(self.errors) as file:
            return file.read()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        assert self.process.poll() is None, f"the publisher ended with {self.process.poll()}"
        self.process.terminate()
        self.process.wait()
        self.folder.cleanup()


class Client(rtsp.Connection):
    """A connection to a publisher for its stream of the path; source: from this address."""

    def __init__(self, publisher, source="", user=None, host="127.0.0.1", path="kavo", receive_buffer=0):
        self.root, self.path = f"rtsp://{host}:{publisher.port}/", path
        super().__init__(self.root + path, source, user, receive_buffer)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def ask(self, method, path=None, *arguments, **named):
        return super().ask(method, self.root + (self.path if path is None else path), *arguments, **named)

    def set_up(self, transport="RTP/AVP/TCP;unicast;interleaved=0-1", path=None):
        for _ in range(2 if self.user else 1):
            status = self.ask("SETUP", (path or self.path) + "/track1", f"Transport: {transport}\r\n")
            if status != 401:
                break
        return status

    def start(self, *transport):
        """SETUP and PLAY, which must succeed."""
        assert self.set_up(*transport) == 200, self.response
        self.setup = self.response
        assert self.ask("PLAY") == 200, self.response
        return self

    def packet(self):
        """The next packet: whether it is RTP, and its bytes."""
        channel, packet = self.interleaved()
        return channel % 2 == 0, packet

    def rtp_packet(self):
        while True:
            is_rtp, packet = self.packet()
            if is_rtp:
                return packet

    def next_nal_type(self):
        """That of the NAL unit in the next RTP packet."""
        packet = self.rtp_packet()
        return packet[13 if packet[12] & 0x1F == 28 else 12] & 0x1F

    def has_packet(self):
        return self.buffer != b"" or select.select([self.socket], [], [], 0)[0] != []

    def receives_bye(self):
        """Waits for a BYE, whatever precedes it."""
        while True:
            is_rtp, packet = self.packet()
            while not is_rtp and len(packet) >= 4:
                if packet[1] == 203:
                    return True
                packet = packet[4 * int.from_bytes(packet[2:4]) + 4:]

    def report(self, packet=REPORT, channel=1):
        self.socket.sendall(bytes([36, channel, 0, len(packet)]) + packet)

    def sees_a_frame(self):
        """Waits for a complete one: from one marker to the next."""
        markers = 0
        while markers < 2:
            markers += self.rtp_packet()[1] >> 7

    def is_closed(self):
        self.socket.settimeout(20)  # less than the 30 s after which an idle connection is closed
        try:
            while self.socket.recv(65536):
                pass
        except ConnectionError:
            pass
        return True


class UdpClient(Client):
    """Plays over UDP."""

    def __init__(self, publisher, source="", user=None, host="127.0.0.1", path="kavo"):
        super().__init__(publisher, source, user, host, path)
        self.address, self.server_port = host.strip("[]"), 0
        self.rtp, self.rtcp, self.transport = self.udp_sockets(source)
        self.rtp.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)

    def start(self):
        super().start(self.transport)
        self.server_port = int(self.setup.split("server_port=")[1].split("-")[0])
        return self

    def packet(self):
        ready = select.select([self.rtcp, self.rtp], [], [], LIMIT)[0]
        assert ready, "nothing comes"
        return ready[0] is self.rtp, ready[0].recv(65536)

    def has_packet(self):
        return select.select([self.rtcp, self.rtp], [], [], 0)[0] != []

    def report(self, packet=REPORT, sender=None):
        (sender or self.rtcp).sendto(packet, (self.address, self.server_port + 1))

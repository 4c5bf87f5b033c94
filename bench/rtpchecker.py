"""Checks a stream of packets against RFC 3550, RFC 6184 (H.264) and RFC 2435 (JPEG), for tests and measurements."""
import struct


def nal_units_of(payloads):
    units, is_open = [], False
    for payload in payloads:
        if payload[0] & 0x1F != 28:  # no fragment of one
            assert not is_open, "fragments without an end"
            units.append(payload)
            continue
        header, starts, ends = payload[0] & 0xE0 | payload[1] & 0x1F, payload[1] >> 7, payload[1] >> 6 & 1
        assert starts != is_open and not (starts and ends) and len(payload) > 2, "fragments out of order"
        if starts:
            units.append(bytes([header]))
        assert units[-1][0] == header, "fragments of different NAL units"
        units[-1] += payload[2:]
        is_open = not ends
    assert not is_open, "fragments without an end"
    return units


def scan_of(payloads):
    """The image's data, without its headers."""
    scan = b""
    for payload in payloads:
        offset, kind, q, width, height = struct.unpack_from(">IBBBB", payload)
        assert offset & 0xFFFFFF == len(scan), "a fragment offset that does not follow"
        assert width > 0 and height > 0 and payload[4:8] == payloads[0][4:8], "no size, or another one"
        begin = 12 if kind >= 64 else 8  # with restart markers
        if not scan and q >= 128:  # with quantization tables
            begin += 4 + int.from_bytes(payload[begin + 2:begin + 4])
        scan += payload[begin:]
    return scan


class RtpChecker:
    def __init__(self, payload_type):
        self.is_jpeg, self.payload_type = payload_type == 26, payload_type
        self.complaints, self.payloads, self.nal_types = [], [], []
        self.packets = self.frames = self.damaged = self.sender_reports = self.sequence = self.timestamp = self.ssrc = 0
        self.frame_has_ended, self.is_behind_gap, self.clock = True, False, None

    def require(self, condition, what):
        if not condition and len(self.complaints) < 20:
            self.complaints.append(f"packet {self.packets}: {what}")

    def rtp(self, packet, arrival):
        """arrival: the wall clock."""
        self.require(12 < len(packet) <= 1472, "RTP packet of a wrong size")
        version, kind, sequence, timestamp, ssrc = struct.unpack_from(">BBHII", packet)
        ends = kind >> 7
        self.require(version == 0x80, "RTP header is not version 2 and plain")
        self.require(kind & 0x7F == self.payload_type, "wrong payload type")
        if self.packets > 0:
            follows = sequence == (self.sequence + 1) % 65536
            self.require(follows, "gap in the sequence")
            self.require(ssrc == self.ssrc, "another SSRC")
            self.require((timestamp == self.timestamp) != self.frame_has_ended, "time stamp and marker bit disagree")
            self.is_behind_gap = self.is_behind_gap or not follows
        if self.frame_has_ended and self.clock:
            wall = self.clock[0] + self.since(self.clock[1], timestamp)
            self.require(wall <= arrival + 0.002, "a frame from the future, by the sender report's clock")
            self.require(wall > arrival - 10, "a frame from long ago, by the sender report's clock")
        self.payloads.append(packet[12:])
        if ends:
            self.frame()
        self.frame_has_ended, self.sequence, self.timestamp, self.ssrc = bool(ends), sequence, timestamp, ssrc
        self.packets += 1
        self.frames += ends

    def frame(self):
        """Reassembles and checks a frame once all its payloads have arrived."""
        types = []
        try:
            if self.is_jpeg:
                head = self.payloads[0]
                self.require(head[4:6] == bytes([1, 195]) and head[10:12] == bytes([0, 128]), "wrong type, Q or tables")
                self.require(scan_of(self.payloads).endswith(b"\xff\xd9"), "the image does not end with its marker")
            else:
                units = nal_units_of(self.payloads)
                types = [unit[0] & 0x1F for unit in units]
                self.require(not any(b"\0\0\1" in unit for unit in units), "start code in a NAL unit")
                self.require(all(unit[0] < 0x80 for unit in units), "forbidden bit set")
                self.require(1 <= types[-1] <= 5, "a frame that does not end with a slice")
        except (AssertionError, IndexError, struct.error) as fault:
            self.require(False, str(fault))
            self.damaged += 1
        self.require(self.is_jpeg or not self.is_behind_gap or types[:1] == [7], "a frame that builds on a lost one")
        self.nal_types += types
        self.payloads, self.is_behind_gap = [], False

    def rtcp(self, packet):
        types, has_name = [], False
        while len(packet) >= 4:
            version, kind, words = struct.unpack_from(">BBH", packet)
            self.require(version >> 6 == 2, "RTCP is not version 2")
            if kind == 200:
                self.sender_report(packet)
            has_name = has_name or kind == 202 and packet[8:9] == b"\1"
            types.append(kind)
            self.require(len(packet) >= 4 * words + 4, "RTCP lengths do not add up")
            packet = packet[4 * words + 4:]
        self.require(types[:1] in ([200], [201]), "RTCP does not begin with a report")
        self.require(packet == b"", "RTCP lengths do not add up")
        self.require(has_name, "RTCP without a CNAME")

    def sender_report(self, report):
        ssrc, seconds, fraction, rtp = struct.unpack_from(">IIII", report, 4)
        self.sender_reports += 1
        self.require(self.packets == 0 or ssrc == self.ssrc, "sender report of another SSRC")
        wall = seconds - 2208988800 + fraction / 2**32  # since 1970
        if self.clock:
            expected = self.clock[0] + self.since(self.clock[1], rtp)
            self.require(abs(expected - wall) <= 0.002, "the clocks of two sender reports differ")
        self.clock = wall, rtp

    @staticmethod
    def since(before, after):
        """Seconds between two RTP times."""
        return ((after - before + 2**31) % 2**32 - 2**31) / 90000

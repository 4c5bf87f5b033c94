"""An RTSP connection that sends what it is told to, right or wrong, for tests and measurements."""
import hashlib
import re
import socket
import urllib.parse


def free_port():
    """A TCP port that is free on both address families."""
    with socket.socket(socket.AF_INET6) as probe:
        probe.bind(("::", 0))
        return probe.getsockname()[1]


class Connection:
    """source: the local address; user: a name and a password; receive_buffer: in bytes, 0 for the system's size."""

    def __init__(self, url, source="", user=None, receive_buffer=0):
        self.url, self.user = url, user
        target = urllib.parse.urlparse(url)
        self.host = target.hostname
        self.socket = socket.socket(socket.AF_INET6 if ":" in target.hostname else socket.AF_INET)
        self.socket.settimeout(60)
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        if source:
            # The port is chosen as it connects. bind() would take it from those that free_port() takes.
            self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_BIND_ADDRESS_NO_PORT, 1)
            self.socket.bind((source, 0))
        self.socket.connect((target.hostname, target.port))
        self.buffer = b""
        self.early = []  # packets that preceded a response
        self.number = 0
        self.session = self.challenge = None

    def need(self, size):
        while len(self.buffer) < size:
            data = self.socket.recv(65536)
            if not data:
                raise ConnectionError("the server closed the connection")
            self.buffer += data

    def take(self, size):
        self.need(size)
        data, self.buffer = self.buffer[:size], self.buffer[size:]
        return data

    def interleaved(self):
        """Channel and packet."""
        head = self.take(4)
        return head[1], self.take(head[2] << 8 | head[3])

    def ask(self, method, url=None, headers="", version="RTSP/1.0", uri=None):
        """Returns the status; keeps response and body. uri: what the Authorization header names."""
        url = self.url if url is None else url
        self.number += 1
        if self.session:
            headers += f"Session: {self.session}\r\n"
        if self.user and self.challenge:
            headers += self.authorization(method, url if uri is None else uri)
        self.socket.sendall(f"{method} {url} {version}\r\nCSeq: {self.number}\r\n{headers}\r\n".encode())
        self.need(4)
        while self.buffer[:1] == b"$":
            self.early.append(self.interleaved())
            self.need(4)
        while b"\r\n\r\n" not in self.buffer:
            self.need(len(self.buffer) + 1)
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        self.response = head.decode("latin-1")
        length = re.search(r"Content-Length: *(\d+)", self.response, re.I)
        self.body = self.take(int(length[1])) if length else b""
        if found := re.search(r'realm="([^"]*)", nonce="([^"]*)"', self.response):
            self.challenge = found.groups()
        if found := re.search(r"Session: *([^;\s]+)", self.response):
            self.session = found[1]
        return int(self.response.split()[1])

    def authorization(self, method, uri):
        def md5(text):
            return hashlib.md5(text.encode()).hexdigest()

        (user, password), (realm, nonce) = self.user, self.challenge
        answer = md5(f"{md5(f'{user}:{realm}:{password}')}:{nonce}:{md5(f'{method}:{uri}')}")
        return (f'Authorization: Digest username="{user}", realm="{realm}", nonce="{nonce}", uri="{uri}", '
                f'response="{answer}"\r\n')

    def udp_sockets(self, source=""):
        """Sockets for RTP and RTCP, and the Transport header that names their ports."""
        pair = [socket.socket(self.socket.family, socket.SOCK_DGRAM) for _ in range(2)]
        for one in pair:
            one.bind((source, 0))
        return *pair, "RTP/AVP;unicast;client_port={}-{}".format(*(one.getsockname()[1] for one in pair))

    def play(self, transport):
        """DESCRIBE, SETUP and PLAY, which must succeed. Returns the response to SETUP."""
        for method, headers in (("DESCRIBE", ""), ("SETUP", f"Transport: {transport}\r\n"), ("PLAY", "")):
            url = self.url
            if method == "SETUP":
                track = re.search(r"m=video.*?a=control:(\S+)", self.body.decode(), re.S)[1]
                url = track if "://" in track else f"{self.url}/{track}"
            if self.ask(method, url, headers) != 200:
                raise ConnectionError(f"{method}: {self.response}")
            if method == "SETUP":
                setup = self.response
        return setup

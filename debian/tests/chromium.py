"""A headless Chromium."""
import base64
import json
import os
import subprocess
import sys
import tempfile


class Chromium:
    """Speaks the DevTools protocol over pipes, which Chromium expects as 3 and 4."""

    def __init__(self, size):
        self.folder = tempfile.TemporaryDirectory()
        theirs_in, self.out = os.pipe()
        self.inp, theirs_out = os.pipe()

        def pipes():
            moved_in, moved_out = os.dup2(theirs_in, 50), os.dup2(theirs_out, 51)
            os.dup2(moved_in, 3)
            os.dup2(moved_out, 4)

        self.process = subprocess.Popen(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe",
             "--disable-quic", "--no-first-run", "--disable-background-networking", "--disable-component-update",
             "--disable-sync", "--autoplay-policy=no-user-gesture-required", f"--window-size={size}",
             f"--user-data-dir={self.folder.name}"],
            stderr=subprocess.DEVNULL, preexec_fn=pipes, close_fds=False)
        self.buffer = b""
        self.last = 0
        self.session = {}

    def call(self, method, **parameters):
        self.last += 1
        os.write(self.out, json.dumps({"id": self.last, "method": method, "params": parameters, **self.session})
                 .encode() + b"\0")
        while True:
            while b"\0" not in self.buffer:
                block = os.read(self.inp, 65536)
                if not block:
                    sys.exit("chromium ended")
                self.buffer += block
            text, self.buffer = self.buffer.split(b"\0", 1)
            answer = json.loads(text)
            if answer.get("id") == self.last:
                return answer.get("result", {})

    def open(self, address):
        target = self.call("Target.createTarget", url=address)["targetId"]
        self.session = {"sessionId": self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]}

    def picture(self, file):
        with open(file, "wb") as out:
            out.write(base64.b64decode(self.call("Page.captureScreenshot")["data"]))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def evaluate(self, expression):
        return self.call("Runtime.evaluate", expression=expression, returnByValue=True).get("result", {}).get("value")

"""A host in Python, for tests: the server on a free port, and a thread that submits frames."""
import concurrent.futures
import contextlib
import socket
import threading
import time

import kavo_stream


def serve():
    """Returns a server and the beginning of its sessions' URLs."""
    for _ in range(20):  # another program may take the port
        with socket.socket(socket.AF_INET6) as probe:
            probe.bind(("::", 0))
            port = probe.getsockname()[1]
        with contextlib.suppress(kavo_stream.Error):
            return kavo_stream.Server(port), f"rtsp://127.0.0.1:{port}/"
    raise AssertionError("no server starts")


@contextlib.contextmanager
def submitting(submit):
    """Calls submit() again and again, at the frame rate. It must not fail."""
    done = threading.Event()

    def work():
        while not done.is_set():
            submit()
            time.sleep(0.03)

    with concurrent.futures.ThreadPoolExecutor(1) as host:
        working = host.submit(work)
        try:
            yield
        finally:
            done.set()
        working.result()

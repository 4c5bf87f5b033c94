#!/usr/bin/env python3
"""A host program in Python: a moving test pattern, published for SECONDS or until it is killed.

    python3 host.py [PORT] [SECONDS]
"""
import sys
import time

import kavo_stream

width, height, rate = 640, 480, 25
with (kavo_stream.Server(int(sys.argv[1]) if len(sys.argv) > 1 else 8554) as server,
      server.create_session("host") as session):
    stream = session.create_stream(width, height)
    print(session.url, flush=True)
    number, frames = 0, int(sys.argv[2]) * rate if len(sys.argv) > 2 else None
    while number != frames:
        stream.submit(bytes((x + number * 3) & 0xFF for x in range(width) for _ in range(3)) * height)
        time.sleep(1 / rate)
        number += 1

#!/usr/bin/env python3
"""A link that delays, limits and loses, between this network namespace and another one:
two TUN devices with this process between them, so both ends use the kernel's TCP and
UDP. slow0 here is 10.78.0.1, slow1 there 10.78.0.2. Runs until it is ended; then prints
how much it carried towards the far end, as JSON."""
import argparse
import collections
import fcntl
import json
import os
import random
import select
import signal
import struct
import subprocess
import sys
import time

TUNSETIFF = 0x400454CA
IFF_TUN_NO_PI = 0x1001
UDP = 17


def device(name, address):
    """In the network namespace that this process is in."""
    tun = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH", name.encode(), IFF_TUN_NO_PI))
    subprocess.run(["ip", "address", "add", address, "dev", name], check=True)
    subprocess.run(["ip", "link", "set", name, "up", "txqueuelen", "1000"], check=True)
    return tun


def ends(far_process):
    near = device("slow0", "10.78.0.1/24")
    # Debian's default, whatever this machine has.
    subprocess.run(["ip", "route", "change", "10.78.0.0/24", "dev", "slow0", "congctl", "cubic"], check=True)
    with open("/proc/self/ns/net", "rb") as here, open(f"/proc/{far_process}/ns/net", "rb") as there:
        os.setns(there.fileno(), os.CLONE_NEWNET)
        far = device("slow1", "10.78.0.2/24")
        os.setns(here.fileno(), os.CLONE_NEWNET)
    return near, far


class Direction:
    """One way: packets leave at the rate, and arrive after the delay."""

    def __init__(self, source, sink, options, rate):
        self.source, self.sink, self.options = source, sink, options
        self.seconds_a_byte = 8e-6 / rate if rate else 0
        self.free = 0.0  # when the link will have sent all that waits
        self.on_the_way = collections.deque()
        self.bytes = self.lost = self.overflowed = 0

    def takes(self, packet, now):
        if packet[9] == UDP and random.random() < self.options.loss:
            self.lost += 1
            return False
        waiting = (self.free - now) / self.seconds_a_byte if self.seconds_a_byte else 0
        if waiting + len(packet) > self.options.queue:
            self.overflowed += 1
            return False
        return True

    def read(self):
        while True:
            try:
                packet = os.read(self.source, 65536)
            except BlockingIOError:
                return
            now = time.monotonic()
            if packet[0] >> 4 == 4 and self.takes(packet, now):
                self.free = max(self.free, now) + len(packet) * self.seconds_a_byte
                self.on_the_way.append((self.free + self.options.delay / 1000, packet))

    def deliver(self):
        """Writes the packets that are due. Returns when the next one is due, or None."""
        while self.on_the_way and self.on_the_way[0][0] <= time.monotonic():
            packet = self.on_the_way.popleft()[1]
            self.bytes += len(packet)
            os.write(self.sink, packet)
        return self.on_the_way[0][0] if self.on_the_way else None


class Upstream(Direction):
    """Has neither a rate nor loss, and optionally carries no reports."""

    def takes(self, packet, now):
        return not (self.options.no_reports and packet[9] == UDP)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("process", type=int, help="one in the far namespace")
    parser.add_argument("--delay", type=float, default=0, help="milliseconds each way (0)")
    parser.add_argument("--mbit", type=float, default=0, help="rate towards the far end in Mbit/s (unlimited)")
    parser.add_argument("--queue", type=int, default=64000, help="bytes that wait for it (64000)")
    parser.add_argument("--loss", type=float, default=0, help="share of UDP packets lost towards the far end (0)")
    parser.add_argument("--seed", type=int, default=1, help="of what is lost (1)")
    parser.add_argument("--no-reports", action="store_true", help="nothing over UDP comes back")
    options = parser.parse_args()
    random.seed(options.seed)
    near, far = ends(options.process)
    directions = [Direction(near, far, options, options.mbit), Upstream(far, near, options, 0)]
    for end in (signal.SIGTERM, signal.SIGINT):
        signal.signal(end, lambda *_: sys.exit())
    poll = select.poll()
    poll.register(near, select.POLLIN)
    poll.register(far, select.POLLIN)
    print("up", flush=True)
    try:
        while True:
            due = [at for at in (direction.deliver() for direction in directions) if at is not None]
            poll.poll(max(0, 1000 * (min(due) - time.monotonic())) if due else None)
            for direction in directions:
                direction.read()
    finally:
        down = directions[0]
        print(json.dumps({"bytes": down.bytes, "lost": down.lost, "overflowed": down.overflowed}), flush=True)


main()

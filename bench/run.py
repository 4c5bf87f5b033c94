#!/usr/bin/env python3
"""Runs the benchmarks: ours beside live555 as it comes and gst-rtsp-server, in
turns, medians with their spread. Prints tables in Markdown. Needs the preset
"bench" to be built; "make bench" does that."""
import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

from rtsp import free_port

PROJECT = pathlib.Path(__file__).resolve().parent.parent
BUILD = PROJECT / "build" / "bench" / "bench"


def run(engine, streams, fps, size, viewers, transport, seconds, crawl=None, on=((), ()), page=None):
    """Runs a server and its viewers. Returns what both measured, or None if one of them
    failed. crawl adds slow viewers; on holds the commands that run the server and the
    viewers, such as taskset; page is the socket of the status server."""
    port = free_port()
    server = subprocess.Popen(
        [*on[0], BUILD / "bench_server", engine, str(port), str(streams), str(fps), str(size), str(seconds), str(viewers)],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
        env=os.environ | ({"KAVO_STREAM_STATUS": page} if page else {}))
    crowd = None
    try:
        server.stdout.readline()
        if engine != "floor":
            crowd = subprocess.Popen(
                [*on[1], BUILD / "bench_viewers", str(port), str(streams), str(viewers), transport, str(seconds)]
                + ([str(crawl)] if crawl else []),
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            if crowd.stdout.readline().strip() != "playing":
                raise ValueError
        server.stdin.write("\n")
        server.stdin.flush()
        result = json.loads(server.stdout.readline())
        if crowd is not None:
            result.update(json.loads(crowd.stdout.readline()))
        return result
    except ValueError:  # the line is missing
        for process in (server, crowd):
            process.kill()
        print(f"  ({engine}, {viewers} {transport} viewers: {crowd.stderr.read().strip()[:120]})", file=sys.stderr)
        return None
    finally:
        for process in (server, crowd):
            if process is not None:
                process.kill()
                process.wait()


def repeated(rounds, cases):
    """Runs each case once a round, in turns. Returns the results of each."""
    results = {name: [] for name in cases}
    for _ in range(rounds):
        for name, arguments in cases.items():
            result = run(*arguments)
            if result is not None:
                results[name].append(result)
    return results


def median(values):
    return statistics.median(values) if values else float("nan")


def spread(values, form="{:.2f}"):
    if not values:
        return "-"
    return f"{form.format(median(values))} ({form.format(min(values))} to {form.format(max(values))})"


def submit(_rounds):
    print("\n## Submit call against the bare floor\n")
    out = subprocess.run([BUILD / "bench_submit", "--benchmark_format=json"], stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL, text=True, check=True).stdout
    print("| case | time of a call | submit / floor (quartiles) |\n|---|---|---|")
    rows = json.loads(out)["benchmarks"]
    for row in rows:
        if "ratio" in row:
            print(f"| {row['name'].split('/')[1]} | {row['ms']:.2f} ms | {row['ratio']:.3f} ({row['ratio_q1']:.3f} to {row['ratio_q3']:.3f}) |")
        elif "times" not in row:
            print(f"| nobody watches | {row['real_time']:.0f} ns | |")
    print("\nStreams encoded in parallel, each from a thread of its own.\n\n| streams | frames, of one stream's |\n|---|---|")
    for row in rows:
        if "times" in row:
            print(f"| {row['name'].split('/')[1]} | {row['times']:.2f} times |")


def latency(rounds):
    print("\n## From the end of encoding to the last packet at the viewer\n")
    print("640x480, 25 frames a second, one viewer. Microseconds.\n")
    print("| frame | transport | engine | median (spread) | 99th percentile | PLAY to first frame, ms |\n|---|---|---|---|---|---|")
    for size in (15000, 40000, 60000):
        for transport in ("udp", "tcp"):
            cases = {e: (e, 1, 25, size, 1, transport, 3) for e in ("ours", "stock", "gst")}
            for engine, results in repeated(rounds, cases).items():
                print(f"| {size // 1000} kB | {transport} | {engine} | {spread([r['p50'] for r in results], '{:.0f}')} "
                      f"| {median([r['p99'] for r in results]):.0f} | {median([r['join'] for r in results]):.1f} |")


CPU_HEAD = """
640x480 JPEG of 40 kB, 25 frames a second; CPU milliseconds a second for each viewer.

| viewers | transport | engine | CPU for each (spread) | whole frames | ours against it |
|---|---|---|---|---|---|"""


def cpu_rows(rounds, engines, viewers, fps, transport, on=((), ()), size=40000):
    seconds = 4
    results = repeated(rounds, {e: (e, 1, fps, size, viewers, transport, seconds, None, on) for e in engines})
    each = {e: [1000 * r["cpu"] / seconds / viewers for r in rs] for e, rs in results.items()}
    for engine in engines:
        whole = "-"
        if engine != "floor" and results[engine]:
            r = results[engine][-1]
            whole = f"{100 * r['frames'] / max(1, r['frames'] + r['damaged']):.1f} %"
        against = f"{median(each['ours']) / median(each[engine]):.2f}" if engine != "ours" else ""
        note = f"{viewers}" + (f" at {fps} a second" if fps != 25 else "")
        print(f"| {note} | {transport} | {engine} | {spread(each[engine], '{:.3f}')} | {whole} | {against} |")
    sys.stdout.flush()


def cpu(rounds):
    print("\n## CPU of the server for each viewer, on one machine")
    print(CPU_HEAD)
    for viewers in (1, 50, 200):
        cpu_rows(rounds, ("ours", "stock", "gst", "floor"), viewers, 25, "udp")
    cpu_rows(rounds, ("ours", "floor"), 1000, 5, "udp")
    for viewers in (1, 50, 200):
        cpu_rows(rounds, ("ours", "stock", "gst"), viewers, 25, "tcp")


def own_network():
    """Enters a network namespace, for settings of its own. Returns whether that is possible."""
    try:
        os.unshare(os.CLONE_NEWNET | os.CLONE_NEWNS)
        subprocess.run(["mount", "-t", "sysfs", "none", "/sys"], check=True, capture_output=True)
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return True
    except (OSError, subprocess.CalledProcessError) as error:
        print(f"\nskipped: no network namespace for this process ({error}); it takes root")
        return False


def addresses(rounds):
    print("\n## CPU of the server for viewers at addresses of their own")
    if not own_network():
        return
    far = subprocess.Popen(["unshare", "-n", "sh", "-c", "ip link set lo up; echo; exec sleep 3600"], stdout=subprocess.PIPE)
    try:
        far.stdout.readline()
        there = ["nsenter", "-t", str(far.pid), "-n"]

        def ip(text, where=()):
            subprocess.run([*where, "ip", "-batch", "-"], input=text, text=True, check=True)

        ip(f"link add near type veth peer name far netns {far.pid}\naddress add 10.79.0.1/24 dev near\nlink set near up\n"
           "route add 10.80.0.0/16 via 10.79.0.2\n")
        ip("address add 10.79.0.2/24 dev far\nlink set far up\n" +
           "".join(f"address add 10.80.{i // 250}.{i % 250 + 1}/32 dev lo\n" for i in range(1100)), there)
        on = ((), (*there, "env", "KAVO_BENCH_SERVER=10.79.0.1"))
        print(CPU_HEAD.replace("40 kB, 25", "15 kB, 10"))
        for transport in ("udp", "tcp"):
            for viewers in (100, 1000):
                cpu_rows(rounds, ("ours", "gst"), viewers, 10, transport, on, 15000)
    finally:
        far.kill()
        far.wait()


def steered(rounds):
    print("\n## CPU of the server for each viewer, received on the other core")
    if not own_network():
        return
    pathlib.Path("/sys/class/net/lo/queues/rx-0/rps_cpus").write_text("2\n")
    cores = (("taskset", "-c", "0"), ("taskset", "-c", "1"))
    print(CPU_HEAD)
    for transport in ("udp", "tcp"):
        for viewers in (50, 200):
            cpu_rows(rounds, ("ours", "stock", "gst"), viewers, 25, transport, cores)


def page(rounds):
    print("\n## CPU of the server with and without a status server\n")
    print("200 viewers of 640x480 JPEG of 40 kB, 25 frames a second.\n")
    print("| transport | ms a second without | with | with / without |\n|---|---|---|---|")
    seconds = 4
    with tempfile.TemporaryDirectory() as folder:
        file = folder + "/status"
        for transport in ("udp", "tcp"):
            cases = {name: ("ours", 1, 25, 40000, 200, transport, seconds, None, ((), ()), name) for name in (None, file)}
            used = {name: [1000 * r["cpu"] / seconds for r in rs] for name, rs in repeated(4 * rounds, cases).items()}
            print(f"| {transport} | {spread(used[None])} | {spread(used[file])} "
                  f"| {median(used[file]) / median(used[None]):.3f} |")


def slow(rounds):
    print("\n## Others beside a stalled and a crawling viewer\n")
    print("200 viewers over TCP, 40 kB at 25 frames a second; one more reads nothing, one reads a tenth.\n")
    print("| engine | slow viewers | median, ms | worst frame of all, ms | longest push, ms | its most CPU, ms | resident MB |\n"
          "|---|---|---|---|---|---|---|")
    cases = {(e, crawl): (e, 1, 25, 40000, 200, "tcp", 6, crawl) for e in ("ours", "stock", "gst")
             for crawl in (None, 100000)}
    for (engine, crawl), results in repeated(rounds, cases).items():
        print(f"| {engine} | {2 if crawl else 0} | {spread([r['p50'] / 1000 for r in results], '{:.1f}')} "
              f"| {spread([r['worst'] / 1000 for r in results], '{:.1f}')} | {spread([r['push'] for r in results], '{:.2f}')} "
              f"| {spread([r['push_cpu'] for r in results], '{:.3f}')} "
              f"| {median([r['kilobytes'] / 1000 for r in results]):.1f} |")


def large(rounds):
    print("\n## Large frames to one UDP viewer with the default receive buffer\n")
    print("300 kB, 10 frames a second.\n\n| engine | whole frames | damaged | packets lost |\n|---|---|---|---|")
    for engine, results in repeated(rounds, {e: (e, 1, 10, 300000, 1, "udp", 4) for e in ("ours", "stock", "gst")}).items():
        print(f"| {engine} | " + " | ".join(str(sum(r[key] for r in results)) for key in ("frames", "damaged", "lost"))
              + " |")


def crowds(rounds):
    print("\n## Crowds on this machine\n")
    print("| viewers | frames | Gbit/s | transport | frames that came, of those due | damaged | packets lost "
          "| CPU of the server, cores |\n|---|---|---|---|---|---|---|---|")
    for transport in ("udp", "tcp"):
        for viewers, size, fps in ((1000, 15000, 10), (4000, 15000, 10), (500, 40000, 25), (1000, 40000, 25),
                                   (2000, 40000, 25)):
            seconds = 5
            for result in repeated(1, {"ours": ("ours", 1, fps, size, viewers, transport, seconds)})["ours"]:
                print(f"| {viewers} | {size // 1000} kB, {fps} a second | {viewers * size * fps * 8e-9:.1f} | {transport} "
                      f"| {100 * result['frames'] / (viewers * fps * seconds):.0f} % "
                      f"| {result['damaged']} | {result['lost']} | {result['cpu'] / seconds:.2f} |")


def file_cpu(command, port, seconds):
    """CPU milliseconds a second of a server that plays a file to a viewer over TCP."""
    server = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    try:
        server.stdout.readline()
        player = ["ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp", "-i", f"rtsp://127.0.0.1:{port}/kavo",
                  "-c", "copy", "-t"]

        def used():
            fields = pathlib.Path(f"/proc/{server.pid}/stat").read_text().rpartition(")")[2].split()
            return (int(fields[11]) + int(fields[12])) * 1000 / os.sysconf("SC_CLK_TCK")

        before, begin = used(), time.monotonic()
        subprocess.run(player + [str(seconds), "-f", "null", "-"], check=True)
        return (used() - before) / (time.monotonic() - begin)
    finally:
        server.kill()
        server.wait()


def copy(rounds):
    print("\n## An encoded file, 1080p H.264 of 25 frames a second, to one viewer over TCP\n")
    print("| server | CPU ms a second | of re-encoding |\n|---|---|---|")
    publish = PROJECT / "build" / "bench" / "tools" / "kavo-publish"
    with tempfile.TemporaryDirectory() as folder:
        film = f"{folder}/film.mp4"
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=25", "-t", "20",
                        "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "veryfast", "-bf", "0", "-g", "50", film],
                       check=True)
        results = {"kavo-publish": [], "kavo-publish --copy": [], "gst-rtsp-server": []}
        for _ in range(rounds):
            for name, times in results.items():
                port = str(free_port())
                options = ["--copy"] if "copy" in name else []
                times.append(file_cpu([BUILD / "bench_gstfile", port, film] if "gst" in name else
                                      [publish, "--port", port, "--loop", *options, film], port, 8))
        for name, times in results.items():
            print(f"| {name} | {spread(times)} | {100 * median(times) / median(results['kavo-publish']):.1f} % |")


def links(_rounds):
    print("\n## Slow and lossy links\n")
    print("40 kB at 25 frames a second (8 Mbit/s) over TCP; an H.264 stream over UDP to a viewer that asks for "
          "what it misses.\n", flush=True)
    subprocess.run([PROJECT / "bench" / "links.py", "20"], check=True)


def memory(_rounds):
    print("\n## Memory, and many streams\n")
    print("| engine | streams | viewers | resident MB | frames delivered of those due |\n|---|---|---|---|---|")
    for engine in ("ours", "gst"):
        for streams, viewers in ((1, 1), (200, 200), (1, 200)):
            fps, seconds = 5, 4
            result = run(engine, streams, fps, 15000, viewers, "udp", seconds)
            if result is None:
                print(f"| {engine} | {streams} | {viewers} | failed | |")
                continue
            due = result["frames"] / (viewers * fps * seconds)
            print(f"| {engine} | {streams} | {viewers} | {result['kilobytes'] / 1000:.1f} | {100 * due:.0f} % |")


# The tables that leave this network namespace come last.
TABLES = {"submit": submit, "latency": latency, "cpu": cpu, "page": page, "slow": slow, "large": large, "memory": memory,
          "links": links, "copy": copy, "crowds": crowds, "steered": steered,
          "addresses": addresses}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("tables", nargs="*", metavar="table", help=" ".join(TABLES) + " (all)")
    parser.add_argument("--rounds", type=int, default=2, help="how often each row is measured (2)")
    arguments = parser.parse_args()
    for name in arguments.tables:
        if name not in TABLES:
            parser.error(f"there is no table {name}: choose from {' '.join(TABLES)}")
    for name in arguments.tables or TABLES:
        TABLES[name](arguments.rounds)
        sys.stdout.flush()


main()

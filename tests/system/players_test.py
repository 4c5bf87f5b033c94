#!/usr/bin/env python3
"""What real players show of frames in each layout: the quarters of the picture in their colours."""
import concurrent.futures
import contextlib
import itertools
import subprocess
import tempfile

import numpy

from kavo_stream import Codec, PixelFormat
from pythonhost import serve, submitting

COLOURS = numpy.array([(255, 0, 0), (0, 255, 0), (0, 0, 255), (200, 200, 200)])  # of the quarters, in reading order


def frame_of(layout, width, height):
    """Made from the layout's definition."""
    y, x = numpy.mgrid[:height, :width]
    rgb = COLOURS[(y * 2 >= height) * 2 + (x * 2 >= width)]
    if layout.name.startswith("YUV"):  # ITU-R BT.601
        is_full, rows = layout.name.startswith("YUVJ"), 2 if layout.name.endswith("420P") else 1
        luma = rgb @ (0.299, 0.587, 0.114)
        planes = [luma if is_full else 16 + luma * 219 / 255]
        for colour, divisor in ((2, 1.772), (0, 1.402)):
            chroma = (rgb[::rows, ::2, colour] - luma[::rows, ::2]) / divisor
            planes.append(128 + chroma * (1 if is_full else 224 / 255))
        return numpy.concatenate([plane.round().clip(0, 255).ravel() for plane in planes]).astype(numpy.uint8)
    channels = {"R": rgb[..., 0], "G": rgb[..., 1], "B": rgb[..., 2], "A": numpy.full_like(x, 255)}
    return numpy.stack([channels[letter] for letter in layout.name.rstrip("24")], -1).astype(numpy.uint8)


def watch(player, transport, codec, url, frames=3, size=(320, 240)):
    """Requires that the player shows so many frames, all of them in their colours and without damage."""
    with tempfile.NamedTemporaryFile() as file:
        if player == "FFmpeg":
            command = (f"ffmpeg -nostdin -v warning -rtsp_transport {transport} -i {url} -frames:v {frames} "
                       f"-fps_mode passthrough -pix_fmt rgb24 -f rawvideo -y {file.name}")
        else:  # whose exit status says nothing: it may close the connection before it has sent its own PAUSE
            decoder = "rtpjpegdepay ! jpegdec" if codec == Codec.JPEG else "rtph264depay ! h264parse ! avdec_h264"
            command = (f"gst-launch-1.0 -q rtspsrc location={url} protocols={transport} latency=50 ! {decoder} ! "
                       "videoconvert ! video/x-raw,format=RGB ! "
                       f"identity eos-after={frames + 1} ! filesink location={file.name}")
        result = subprocess.run(command.split(), stderr=subprocess.PIPE, text=True, timeout=90)
        bytes_seen = numpy.fromfile(file.name, numpy.uint8)
    what = f"{player}, {url}, {transport}: {result.stderr}"
    width, height = size
    count = len(bytes_seen) // (width * height * 3)
    assert count >= frames and (result.returncode == 0 or player != "FFmpeg"), f"{count} frames: {what}"
    pictures = bytes_seen[:count * width * height * 3].reshape(count, height, width, 3)
    margin = max(17, width // 32)  # where the colours of two quarters may mix
    for colour, (lower, right) in zip(COLOURS, itertools.product((False, True), repeat=2)):
        rows = slice(height // 2 + margin, height) if lower else slice(0, height // 2 - margin)
        columns = slice(width // 2 + margin, width) if right else slice(0, width // 2 - margin)
        off = abs(pictures[:, rows, columns] - colour).max()
        assert off <= 45, f"{off} off {colour}: {what}"  # lossy coding and JPEG in limited range take up to 25
    damage = ("error", "Error", "non-existing", "no frame", "conceal", "missed", "corrupt", "invalid")
    assert player != "FFmpeg" or not any(word in result.stderr for word in damage), what


@contextlib.contextmanager
def publishing(server, streams):
    """Publishes a stream for each (name, layout, codec, size of its frames, size as published)."""
    with contextlib.ExitStack() as stack:
        pairs = []
        for name, layout, codec, size, published in streams:
            session = stack.enter_context(server.create_session(name))
            pairs.append((session.create_stream(*size, layout, codec, size=published), frame_of(layout, *size)))
        stack.enter_context(submitting(lambda: [stream.submit(frame) for stream, frame in pairs]))
        yield


# Each player joins a stream that nobody watches, and shows the right frame from the first on.
server = serve()
with server, publishing(server, [("jpeg", PixelFormat.YUV420P, Codec.JPEG, (320, 240), None),
                                 ("h264", PixelFormat.BGR24, Codec.H264, (320, 240), None)]):
    for codec, player, transport in itertools.product((Codec.JPEG, Codec.H264), ("FFmpeg", "GStreamer"), ("tcp", "udp")):
        watch(player, transport, codec, server.root + codec.name.lower())
        if transport == "udp" and (player, codec) != ("FFmpeg", Codec.JPEG):
            watch(player, transport, codec, server.root.replace("127.0.0.1", "[::1]") + codec.name.lower())

# The module converts packed frames for JPEG of their own size, so the library's conversion is seen in another size.
server = serve()
with server:
    streams = [(f"{codec.name}-{layout.name}", layout, codec, (320, 240), (640, 480) if codec == Codec.JPEG else None)
               for codec in (Codec.JPEG, Codec.H264) for layout in PixelFormat]
    streams.append(("large", PixelFormat.RGB24, Codec.JPEG, (322, 242), (2040, 2040)))
    with publishing(server, streams), concurrent.futures.ThreadPoolExecutor(len(streams)) as pool:
        list(pool.map(lambda s: watch("FFmpeg", "tcp", s[2], server.root + s[0], 1, s[4] or s[3]), streams))
print("passed")

#!/usr/bin/python3
"""The benchmarks' RTSP camera: a pre-encoded 1080p30 file (made once by ffmpeg) served in an
endless loop at rtsp://127.0.0.1:PORT/cam, a camera that costs little CPU. Serves through the
test camera's server (testing/camera_rtsp.py), so it speaks the same --port / ready-line
protocol and needs the same Debian python3-gi and GStreamer.
"""

import argparse
import base64
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "testing"))
from camera_rtsp import Gst, serve  # noqa: E402  (exits with the reason when gi is missing)

# What the file holds when this script makes it: 1080p at 4 Mbit/s with a keyframe every 2 s,
# 20 s long, so the loop seam falls on a keyframe and the GOP stays 60 frames across it. No
# B-frames, like most cameras, so decode order is presentation order. libx264 writes SPS/PPS
# before every IDR of a raw stream, so a client may join at any keyframe.
FILE_FPS = 30
FILE_ENCODE = [
    "-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=30", "-t", "20",
    "-c:v", "libx264", "-preset", "veryfast", "-profile:v", "main", "-bf", "0",
    "-pix_fmt", "yuv420p", "-b:v", "4M", "-maxrate", "4M", "-bufsize", "8M",
    "-g", "60", "-keyint_min", "60", "-sc_threshold", "0",
    "-bsf:v", "h264_metadata=aud=insert", "-f", "h264",
]


def make_file(path):
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    # Written aside and renamed, so a camera started meanwhile never reads half a file.
    tmp = f"{path}.{os.getpid()}.tmp"
    try:
        subprocess.run(["ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y",
                        *FILE_ENCODE, tmp], check=True, stdin=subprocess.DEVNULL)
        os.replace(tmp, path)
    finally:
        if os.path.exists(tmp):
            os.unlink(tmp)


def access_units(data):
    """Splits an Annex B stream at its access unit delimiters (NAL type 9).

    Returns (bytes, is_keyframe) pairs; a keyframe holds an IDR slice (NAL type 5)."""
    starts = []
    i = data.find(b"\x00\x00\x01")
    while i >= 0:
        starts.append(i + 3)
        i = data.find(b"\x00\x00\x01", i + 3)
    units, begin, key = [], None, False
    for k, s in enumerate(starts):
        kind = data[s] & 0x1F
        if kind == 9:
            # The AUD's own start code may be four bytes long: cut before the zero too.
            cut = s - 4 if s >= 4 and data[s - 4] == 0 else s - 3
            if begin is not None:
                units.append((data[begin:cut], key))
            begin, key = cut, False
        elif kind == 5:
            key = True
    if begin is not None:
        units.append((data[begin:], key))
    return units


class LoopedFile:
    """Feeds the shared media's appsrc one frame every 1/fps s of real time.

    Frame n of the stream is frame n mod len(units) of the file with timestamp n/fps after the
    first one, so timestamps keep increasing across loops and the clients see one continuous
    stream. A new media (after every client left) starts again from the file's first frame,
    which is a keyframe."""

    def __init__(self, units, fps):
        self.units = units
        self.dur = Gst.SECOND // fps
        self.fps = fps
        self.src = None

    def configure(self, _factory, media):
        self.src = media.get_element().get_child_by_name("src")
        self.n = 0
        self.t0 = None
        self.offset = 0

    def tick(self):
        src = self.src
        if src is None:
            return True
        now = time.monotonic()
        if self.t0 is None:
            running = src.get_current_running_time()
            if running == Gst.CLOCK_TIME_NONE:
                return True  # not playing yet
            self.t0, self.offset = now, running
        due = int((now - self.t0) * self.fps) + 1
        while self.n < due:
            data, key = self.units[self.n % len(self.units)]
            buf = Gst.Buffer.new_wrapped(data)
            buf.pts = buf.dts = self.offset + self.n * self.dur
            buf.duration = self.dur
            if not key:
                buf.set_flags(Gst.BufferFlags.DELTA_UNIT)
            if src.emit("push-buffer", buf) != Gst.FlowReturn.OK:
                self.src = None  # media torn down: wait for the next configure
                return True
            self.n += 1
        return True


def parameter_sets(unit):
    """The SPS and PPS (NAL types 7, 8) of an access unit, base64, as SDP wants them."""
    sets = []
    for nal in unit.split(b"\x00\x00\x01")[1:]:
        nal = nal.rstrip(b"\x00")  # a four-byte start code leaves its zero behind
        if nal and nal[0] & 0x1F in (7, 8):
            sets.append(base64.b64encode(nal).decode())
    return ",".join(sets)


def file_launch_line(sprop):
    caps = (f"video/x-h264,stream-format=byte-stream,alignment=au,"
            f"framerate={FILE_FPS}/1")
    # The parameter sets go into the SDP from the start: otherwise the payloader learns them
    # from the first frame, and a client whose DESCRIBE comes before that frame gets none and
    # cannot tell the picture size until the next keyframe.
    return (f"( appsrc name=src is-live=true format=time do-timestamp=false caps={caps} ! "
            f'rtph264pay name=pay0 pt=96 sprop-parameter-sets="{sprop}" )')


def main():
    p = argparse.ArgumentParser(description="RTSP camera serving a looped H.264 file")
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--file", required=True, help="the H.264 file (Annex B, an AUD before each "
                   "frame); made by ffmpeg if missing")
    a = p.parse_args()
    Gst.init(None)
    try:
        if not os.path.exists(a.file):
            make_file(a.file)
        with open(a.file, "rb") as f:
            units = access_units(f.read())
    except (OSError, subprocess.CalledProcessError) as e:
        print(f"camera_in_loop: {a.file}: {e}", file=sys.stderr)
        return 2
    if not units or not units[0][1]:
        print(f"camera_in_loop: {a.file}: no frames, or not starting on a keyframe",
              file=sys.stderr)
        return 2
    looped = LoopedFile(units, FILE_FPS)
    return serve(a.port, file_launch_line(parameter_sets(units[0][0])), looped.configure,
                 looped.tick)


if __name__ == "__main__":
    sys.exit(main())

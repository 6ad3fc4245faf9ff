#!/usr/bin/python3
"""RTSP test camera: a live 640x360 25 fps H.264 test pattern at rtsp://127.0.0.1:PORT/cam,
or with --loop-file a pre-encoded 1080p30 file (made once by ffmpeg) served in an endless loop,
a camera that costs little CPU. Needs Debian's /usr/bin/python3 with python3-gi and GStreamer.
Prints "pronta URL" once it listens; the harness waits for that line instead of sleeping.
"""

import argparse
import base64
import os
import signal
import subprocess
import sys
import time

try:
    import gi
    gi.require_version("Gst", "1.0")
    gi.require_version("GstRtspServer", "1.0")
    from gi.repository import GLib, Gst, GstRtspServer
except (ImportError, ValueError) as e:
    # The harness shows this line as the reason for skipping the test.
    sys.exit(f"camera_rtsp: python3-gi / GStreamer RTSP server missing: {e}")

HOST = "127.0.0.1"
PATH = "/cam"


def has(element):
    return Gst.ElementFactory.find(element) is not None


def launch_line():
    # The clock overlay lives in the pango plugin, which is not always
    # installed; without it the pattern scrolls so frames still differ.
    if has("clockoverlay"):
        source = ("videotestsrc is-live=true ! clockoverlay ! "
                  "timeoverlay valignment=bottom")
    else:
        source = "videotestsrc is-live=true horizontal-speed=4"
    # An IDR every 25 frames: the recorder's segment boundaries can only fall on keyframes. No
    # config-interval on the payloader: the encoder already repeats SPS/PPS in-band at each IDR,
    # and a separately sent copy makes ffmpeg emit an extra header-only packet per keyframe.
    return (f"( {source} ! video/x-raw,width=640,height=360,framerate=25/1 ! videoconvert ! "
            "video/x-raw,format=I420 ! x264enc tune=zerolatency speed-preset=ultrafast "
            "key-int-max=25 bframes=0 ! video/x-h264,profile=baseline ! "
            "rtph264pay name=pay0 pt=96 )")


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
    p = argparse.ArgumentParser(description="RTSP test camera")
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--loop-file", help="serve this H.264 file (Annex B, an AUD before each "
                   "frame) in a loop instead of encoding; made by ffmpeg if missing")
    a = p.parse_args()
    Gst.init(None)
    looped = None
    if a.loop_file:
        try:
            if not os.path.exists(a.loop_file):
                make_file(a.loop_file)
            with open(a.loop_file, "rb") as f:
                units = access_units(f.read())
        except (OSError, subprocess.CalledProcessError) as e:
            print(f"camera_rtsp: {a.loop_file}: {e}", file=sys.stderr)
            return 2
        if not units or not units[0][1]:
            print(f"camera_rtsp: {a.loop_file}: no frames, or not starting on a keyframe",
                  file=sys.stderr)
            return 2
        looped = LoopedFile(units, FILE_FPS)
        launch = file_launch_line(parameter_sets(units[0][0]))
    elif not has("x264enc"):
        print("camera_rtsp: no x264enc in GStreamer", file=sys.stderr)
        return 2
    else:
        launch = launch_line()

    server = GstRtspServer.RTSPServer()
    server.set_address(HOST)
    server.set_service(str(a.port))
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(launch)
    factory.set_shared(True)
    # Like a real camera, ignore the client's PLAY Range: otherwise every new
    # client seeks the shared pipeline back to 0 and the timestamps of the
    # clients already connected jump backwards. This clock mode is what makes
    # the server treat the media as not seekable.
    factory.set_publish_clock_mode(
        GstRtspServer.RTSPPublishClockMode.CLOCK_AND_OFFSET)
    if looped is not None:
        factory.connect("media-configure", looped.configure)
    server.get_mount_points().add_factory(PATH, factory)

    loop = GLib.MainLoop()
    # attach() binds and listens; 0 means the port could not be taken.
    if server.attach(None) == 0:
        print(f"camera_rtsp: cannot listen on {HOST}:{a.port} "
              "(port in use?)", file=sys.stderr)
        return 1

    for sig in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, sig, loop.quit)
    # When stdout is a pipe whose reader has gone (the test process crashed
    # or was killed), stop too rather than linger as an orphan on the port.
    GLib.io_add_watch(sys.stdout.fileno(), GLib.PRIORITY_DEFAULT,
                      GLib.IOCondition.ERR | GLib.IOCondition.HUP,
                      lambda *_: loop.quit())

    if looped is not None:
        GLib.timeout_add(5, looped.tick)
    print(f"pronta rtsp://{HOST}:{a.port}{PATH}", flush=True)
    loop.run()
    return 0


if __name__ == "__main__":
    sys.exit(main())

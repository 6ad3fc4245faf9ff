#!/usr/bin/python3
"""Fake IP camera for the end-to-end tests: a live H.264 test pattern over RTSP.

Run it with Debian's /usr/bin/python3 (it needs python3-gi and GStreamer):

    /usr/bin/python3 testing/camera_rtsp.py --port 8554 [--path /cam]
        [--fps 25] [--width 640 --height 360] [--gop 25]

Once the server is listening it prints "pronta rtsp://127.0.0.1:PORT/PATH"
on stdout; the test harness waits for that line instead of sleeping.
"""

import argparse
import signal
import sys

try:
    import gi
    gi.require_version("Gst", "1.0")
    gi.require_version("GstRtspServer", "1.0")
    from gi.repository import GLib, Gst, GstRtspServer
except (ImportError, ValueError) as e:
    # The harness shows this line as the reason for skipping the test.
    sys.exit(f"camera_rtsp: python3-gi / GStreamer RTSP server missing: {e}")

HOST = "127.0.0.1"


# --- options -----------------------------------------------------------------

def parse_args():
    p = argparse.ArgumentParser(description="RTSP test camera")
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--path", default="/cam")
    p.add_argument("--fps", type=int, default=25)
    p.add_argument("--width", type=int, default=640)
    p.add_argument("--height", type=int, default=360)
    p.add_argument("--gop", type=int, default=25, help="frames between keyframes")
    args = p.parse_args()
    if not args.path.startswith("/"):
        args.path = "/" + args.path
    return args


# --- pipeline ----------------------------------------------------------------

def has(element):
    return Gst.ElementFactory.find(element) is not None


def encoder(gop):
    # x264enc is the usual choice; openh264enc is the fallback some distros ship
    # instead. Both must emit an IDR every `gop` frames, since the recorder's
    # segment boundaries can only fall on keyframes.
    if has("x264enc"):
        return ("x264enc tune=zerolatency speed-preset=ultrafast "
                f"key-int-max={gop} bframes=0")
    if has("openh264enc"):
        return f"openh264enc gop-size={gop} complexity=low"
    raise RuntimeError("no H.264 encoder (x264enc/openh264enc) in GStreamer")


def launch_line(a):
    # The clock overlay lives in the pango plugin, which is not always
    # installed; without it the pattern scrolls so frames still differ.
    if has("clockoverlay"):
        source = ("videotestsrc is-live=true ! clockoverlay ! "
                  "timeoverlay valignment=bottom")
    else:
        source = "videotestsrc is-live=true horizontal-speed=4"
    caps = f"video/x-raw,width={a.width},height={a.height},framerate={a.fps}/1"
    # No config-interval on the payloader: the encoder already repeats SPS/PPS
    # in-band at each IDR, and a separately sent copy makes ffmpeg emit an extra
    # header-only packet per keyframe.
    return (f"( {source} ! {caps} ! videoconvert ! video/x-raw,format=I420 ! "
            f"{encoder(a.gop)} ! video/x-h264,profile=baseline ! "
            "rtph264pay name=pay0 pt=96 )")


# --- main --------------------------------------------------------------------

def main():
    a = parse_args()
    Gst.init(None)
    try:
        launch = launch_line(a)
    except RuntimeError as e:
        print(f"camera_rtsp: {e}", file=sys.stderr)
        return 2

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
    server.get_mount_points().add_factory(a.path, factory)

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

    print(f"pronta rtsp://{HOST}:{a.port}{a.path}", flush=True)
    loop.run()
    return 0


if __name__ == "__main__":
    sys.exit(main())

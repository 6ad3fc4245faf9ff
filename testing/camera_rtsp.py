#!/usr/bin/python3
"""RTSP test camera: a live 640x360 25 fps H.264 test pattern at rtsp://127.0.0.1:PORT/cam.
Needs Debian's /usr/bin/python3 with python3-gi and GStreamer. Prints "pronta URL" once it
listens; the harness waits for that line instead of sleeping.
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


def serve(port, launch, configure=None, tick=None):
    """Serves the `launch` pipeline until SIGTERM/SIGINT or until the harness goes away.

    configure(factory, media) runs for each new shared media, tick() every 5 ms."""
    server = GstRtspServer.RTSPServer()
    server.set_address(HOST)
    server.set_service(str(port))
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(launch)
    factory.set_shared(True)
    # Like a real camera, ignore the client's PLAY Range: otherwise every new
    # client seeks the shared pipeline back to 0 and the timestamps of the
    # clients already connected jump backwards. This clock mode is what makes
    # the server treat the media as not seekable.
    factory.set_publish_clock_mode(
        GstRtspServer.RTSPPublishClockMode.CLOCK_AND_OFFSET)
    if configure is not None:
        factory.connect("media-configure", configure)
    server.get_mount_points().add_factory(PATH, factory)

    loop = GLib.MainLoop()
    # attach() binds and listens; 0 means the port could not be taken.
    if server.attach(None) == 0:
        print(f"camera_rtsp: cannot listen on {HOST}:{port} "
              "(port in use?)", file=sys.stderr)
        return 1

    for sig in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, sig, loop.quit)
    # When stdout is a pipe whose reader has gone (the test process crashed
    # or was killed), stop too rather than linger as an orphan on the port.
    GLib.io_add_watch(sys.stdout.fileno(), GLib.PRIORITY_DEFAULT,
                      GLib.IOCondition.ERR | GLib.IOCondition.HUP,
                      lambda *_: loop.quit())

    if tick is not None:
        GLib.timeout_add(5, tick)
    print(f"pronta rtsp://{HOST}:{port}{PATH}", flush=True)
    loop.run()
    return 0


def main():
    p = argparse.ArgumentParser(description="RTSP test camera")
    p.add_argument("--port", type=int, required=True)
    a = p.parse_args()
    Gst.init(None)
    if not has("x264enc"):
        print("camera_rtsp: no x264enc in GStreamer", file=sys.stderr)
        return 2
    return serve(a.port, launch_line())


if __name__ == "__main__":
    sys.exit(main())

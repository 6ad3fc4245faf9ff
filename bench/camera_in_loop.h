// The benchmarks' camera: bench/camera_in_loop.py through the test camera's harness.
// It serves file_in_loop(): 1920x1080, 30 fps, ~4 Mbit/s, a keyframe every 60 frames (2 s),
// 600 frames looped for ever, paced in real time, timestamps increasing across loops; nothing is
// encoded while serving, so the camera costs little CPU.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "testing/camera_rtsp.h"

namespace nvr::bench {

// /var/tmp/nvr-bench/ (or $NVR_CACHE_BENCH) plus a name that says how the file was encoded.
// The first camera that needs it makes it with ffmpeg (about a minute).
inline std::string file_in_loop() {
  const char* cartella = std::getenv("NVR_CACHE_BENCH");
  const std::string c = cartella != nullptr && *cartella != '\0' ? cartella : "/var/tmp/nvr-bench";
  return c + "/testsrc2_1080p30_4M_gop60_20s.h264";
}

// Like CameraRtsp::avvia, with 5 more minutes while the file is still to be made.
inline std::unique_ptr<nvr::testing::CameraRtsp> avvia_camera_in_loop(std::string* motivo) {
  const std::string file = file_in_loop();
  const double attesa = access(file.c_str(), R_OK) == 0 ? 15 : 315;
  return nvr::testing::CameraRtsp::avvia(motivo, attesa, 0,
                                         {NVR_SORGENTI "/bench/camera_in_loop.py", "--file", file});
}

}  // namespace nvr::bench

// A real RTSP camera for end-to-end tests: runs testing/camera_rtsp.py
// (GStreamer RTSP server, live H.264 test pattern or a looped 1080p30 file) as a child process.
#pragma once

#include <memory>
#include <string>

#include "core/processo.h"

namespace nvr::testing {

// What the camera sends.
enum class Sorgente {
  kSchema,  // a live 640x360 25 fps test pattern, encoded while serving
  // file_in_loop(): 1920x1080, 30 fps, ~4 Mbit/s, a keyframe every 60 frames (2 s), 600 frames
  // looped for ever, paced in real time, timestamps increasing across loops; nothing is encoded
  // while serving, so the camera costs little CPU
  kFileInLoop,
};

// The file kFileInLoop serves: /var/tmp/nvr-bench/ (or $NVR_CACHE_BENCH) plus a name that says
// how it was encoded. The first camera that needs it makes it with ffmpeg (about a minute).
std::string file_in_loop();

class CameraRtsp {
 public:
  // Starts the camera on a free loopback port; waits up to `attesa` seconds for its ready line,
  // plus up to 5 minutes while the file of kFileInLoop is still to be made.
  // Returns nullptr (with the reason in `motivo`) when python3-gi/GStreamer are missing
  // or the camera does not come up, so the caller can GTEST_SKIP() with that reason.
  // With `porta` > 0 it listens on that port (a camera that comes back where it was).
  static std::unique_ptr<CameraRtsp> avvia(std::string* motivo, double attesa = 15.0, int porta = 0,
                                           Sorgente sorgente = Sorgente::kSchema);

  ~CameraRtsp() { ferma(); }
  CameraRtsp(const CameraRtsp&) = delete;
  CameraRtsp& operator=(const CameraRtsp&) = delete;

  const std::string& url() const { return url_; }  // rtsp://127.0.0.1:PORT/cam
  int porta() const { return porta_; }
  pid_t pid() const { return proc_ ? proc_->pid() : -1; }

  // Freeze/thaw the whole server (SIGSTOP/SIGCONT): connections stay open but
  // no data flows, which is how a hung camera looks to the recorder.
  void sospendi();
  void riprendi();
  void ferma();  // SIGTERM, up to 5 s, then SIGKILL; idempotent

 private:
  CameraRtsp() = default;

  std::shared_ptr<Processo> proc_;
  int porta_ = 0;
  int pipe_uscita_ = -1;  // read end of the child's stdout, held open while it runs
  std::string url_;
  std::string log_errori_;  // the child's stderr
};

// A TCP port on 127.0.0.1 that was free a moment ago (bind to 0, read back, close); -1 on error.
int porta_libera();

}  // namespace nvr::testing

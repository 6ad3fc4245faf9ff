#include "testing/camera_rtsp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "testing/ambiente.h"
#include "testing/processi.h"

namespace nvr::testing {
namespace {

using Orologio = std::chrono::steady_clock;

// Debian's interpreter on purpose: a python3 earlier on PATH (pyenv, venv) usually lacks the gi
// bindings.
constexpr const char* kPython = "/usr/bin/python3";

}  // namespace

std::string file_in_loop() {
  const char* cartella = std::getenv("NVR_CACHE_BENCH");
  const std::string c = cartella != nullptr && *cartella != '\0' ? cartella : "/var/tmp/nvr-bench";
  return c + "/testsrc2_1080p30_4M_gop60_20s.h264";
}

int porta_libera() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t lung = sizeof(ind);
  int porta = -1;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&ind), &lung) == 0)
    porta = ntohs(ind.sin_port);
  if (fd >= 0) close(fd);
  return porta;
}

std::unique_ptr<CameraRtsp> CameraRtsp::avvia(std::string* motivo, double attesa, int porta,
                                              Sorgente sorgente) {
  const std::string file = file_in_loop();
  if (sorgente == Sorgente::kFileInLoop && access(file.c_str(), R_OK) != 0) attesa += 300;
  const auto limite = Orologio::now() + std::chrono::duration<double>(attesa);
  // porta_libera() only says the port was free a moment ago; if someone grabs it before the
  // camera binds, the camera says so and we try another one.
  for (int tentativo = 0; tentativo < 3; ++tentativo) {
    std::unique_ptr<CameraRtsp> cam(new CameraRtsp);
    cam->porta_ = porta > 0 ? porta : porta_libera();
    cam->url_ = "rtsp://127.0.0.1:" + std::to_string(cam->porta_) + "/cam";
    char modello[] = "/tmp/nvr_camera_rtsp_XXXXXX.log";
    const int fd_err = mkostemps(modello, 4, O_CLOEXEC);
    // Close-on-exec, so that processes spawned later (the recorder's ffmpeg) do not inherit the
    // read end and keep the camera's "parent alive" signal.
    int tubo[2];
    if (fd_err < 0 || pipe2(tubo, O_CLOEXEC) != 0) {
      *motivo = std::string("camera log or pipe: ") + std::strerror(errno);
      return nullptr;
    }
    cam->log_errori_ = modello;
    // -E: ignore PYTHONPATH/PYTHONHOME that may point at another interpreter's tree.
    Avvio avvio{{kPython, "-E", NVR_SORGENTI "/testing/camera_rtsp.py", "--port",
                 std::to_string(cam->porta_)},
                tubo[1],
                fd_err};
    if (sorgente == Sorgente::kFileInLoop)
      avvio.argomenti.insert(avvio.argomenti.end(), {"--loop-file", file});
    auto p = avvia_processo(avvio);
    close(tubo[1]);
    close(fd_err);
    cam->pipe_uscita_ = tubo[0];
    if (!p.ok()) {
      *motivo = std::string(kPython) + ": " + p.errore().messaggio;
      return nullptr;
    }
    cam->proc_ = p.valore();
    // The ready line, or the end of its output, before the deadline.
    std::string letto;
    for (ssize_t n = 1; n > 0 && letto.find('\n') == std::string::npos;) {
      const auto resto =
          std::chrono::duration_cast<std::chrono::milliseconds>(limite - Orologio::now());
      pollfd pfd{cam->pipe_uscita_, POLLIN, 0};
      if (resto.count() <= 0 || poll(&pfd, 1, static_cast<int>(resto.count())) <= 0) break;
      char buf[256];
      n = read(cam->pipe_uscita_, buf, sizeof(buf));
      if (n < 0 && errno == EINTR) n = 1;
      if (n > 0) letto.append(buf, static_cast<std::size_t>(n));
    }
    if (letto.starts_with("pronta " + cam->url_ + "\n")) {
      motivo->clear();
      return cam;
    }
    if (letto.find('\n') != std::string::npos) {
      *motivo = "camera printed an unexpected line: " + letto.substr(0, letto.find('\n'));
      return nullptr;
    }
    cam->proc_->attendi(2.0);
    // The last part of the child's stderr: enough to explain a failure in a skip message.
    std::string log = leggi_file(cam->log_errori_);
    if (log.size() > 1500) log = "..." + log.substr(log.size() - 1500);
    *motivo = "camera not ready within " + std::to_string(attesa) + " s: " + log;
    if (log.find("cannot listen") == std::string::npos) return nullptr;
  }
  return nullptr;
}

void CameraRtsp::sospendi() {
  if (!proc_) return;
  proc_->segnala(SIGSTOP);
  // Wait until it is really stopped, so a test's "camera frozen since" instant is exact.
  for (int i = 0; i < 500 && stato_processo(pid()).value_or('T') != 'T'; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

void CameraRtsp::riprendi() {
  if (proc_) proc_->segnala(SIGCONT);
}

void CameraRtsp::ferma() {
  if (proc_) {
    proc_->segnala(SIGTERM);
    proc_->segnala(SIGCONT);  // a stopped process would keep SIGTERM pending forever
    if (!proc_->attendi(5.0)) proc_->segnala(SIGKILL);
    proc_->attendi(5.0);
    proc_.reset();
  }
  if (pipe_uscita_ >= 0) close(pipe_uscita_);
  pipe_uscita_ = -1;
  if (!log_errori_.empty()) unlink(log_errori_.c_str());
  log_errori_.clear();
}

}  // namespace nvr::testing

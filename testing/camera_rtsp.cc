#include "testing/camera_rtsp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

extern char** environ;

namespace nvr::testing {
namespace {

using Orologio = std::chrono::steady_clock;

// Debian's interpreter on purpose: a python3 earlier on PATH (pyenv, venv) usually lacks the gi
// bindings.
constexpr const char* kPython = "/usr/bin/python3";

// The last part of the child's stderr: enough to explain a failure in a skip message.
std::string coda_log(const std::string& percorso) {
  std::stringstream ss;
  ss << std::ifstream(percorso).rdbuf();
  const std::string testo = ss.str();
  return testo.size() > 1500 ? "..." + testo.substr(testo.size() - 1500) : testo;
}

// Reaps `pid` if it ends within `secondi`. ECHILD counts as ended: with SIGCHLD ignored the
// kernel reaps for us.
bool attendi_uscita(pid_t pid, double secondi) {
  const auto limite = Orologio::now() + std::chrono::duration<double>(secondi);
  for (int stato; Orologio::now() < limite;
       std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    const pid_t r = waitpid(pid, &stato, WNOHANG);
    if (r == pid || (r < 0 && errno != EINTR)) return true;
  }
  return false;
}

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
  std::string scarto;
  if (motivo == nullptr) motivo = &scarto;
  const std::string script = std::string(NVR_SORGENTI) + "/testing/camera_rtsp.py";
  if (access(kPython, X_OK) != 0) {
    *motivo = std::string(kPython) + " not available";
    return nullptr;
  }
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
    posix_spawn_file_actions_t azioni;
    posix_spawn_file_actions_init(&azioni);
    posix_spawn_file_actions_addopen(&azioni, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&azioni, tubo[1], 1);
    posix_spawn_file_actions_adddup2(&azioni, fd_err, 2);
    // The test runner may block or ignore signals; the camera must still obey SIGTERM.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t vuoto, predefiniti;
    sigemptyset(&vuoto);
    sigemptyset(&predefiniti);
    for (int s : {SIGTERM, SIGINT, SIGPIPE}) sigaddset(&predefiniti, s);
    posix_spawnattr_setsigmask(&attr, &vuoto);
    posix_spawnattr_setsigdefault(&attr, &predefiniti);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    // -E: ignore PYTHONPATH/PYTHONHOME that may point at another interpreter's tree.
    std::vector<std::string> args = {kPython,  "-E",  script, "--port", std::to_string(cam->porta_),
                                     "--path", "/cam"};
    if (sorgente == Sorgente::kFileInLoop) args.insert(args.end(), {"--loop-file", file});
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int rc = posix_spawn(&cam->pid_, kPython, &azioni, &attr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&azioni);
    posix_spawnattr_destroy(&attr);
    close(tubo[1]);
    close(fd_err);
    cam->pipe_uscita_ = tubo[0];
    if (rc != 0) {
      cam->pid_ = -1;
      *motivo = std::string("posix_spawn ") + kPython + ": " + std::strerror(rc);
      return nullptr;
    }
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
    if (attendi_uscita(cam->pid_, 2.0)) cam->pid_ = -1;
    const std::string log = coda_log(cam->log_errori_);
    *motivo = "camera not ready within " + std::to_string(attesa) + " s: " + log;
    if (log.find("cannot listen") == std::string::npos) return nullptr;
  }
  return nullptr;
}

CameraRtsp::~CameraRtsp() { ferma(); }

void CameraRtsp::sospendi() {
  if (pid_ <= 0 || sospesa_ || kill(pid_, SIGSTOP) != 0) return;
  // Wait until it is really stopped, so a test's "camera frozen since" instant is exact.
  int stato = 0;
  pid_t r;
  while ((r = waitpid(pid_, &stato, WUNTRACED)) < 0 && errno == EINTR) {
  }
  if (r == pid_ && !WIFSTOPPED(stato))
    pid_ = -1;  // it died instead, and is now reaped
  else
    sospesa_ = true;
}

void CameraRtsp::riprendi() {
  if (pid_ <= 0 || !sospesa_) return;
  kill(pid_, SIGCONT);
  sospesa_ = false;
}

void CameraRtsp::ferma() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    kill(pid_, SIGCONT);  // a stopped process would keep SIGTERM pending forever
    if (!attendi_uscita(pid_, 5.0)) {
      kill(pid_, SIGKILL);
      while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
    pid_ = -1;
    sospesa_ = false;
  }
  if (pipe_uscita_ >= 0) close(pipe_uscita_);
  pipe_uscita_ = -1;
  if (!log_errori_.empty()) unlink(log_errori_.c_str());
  log_errori_.clear();
}

}  // namespace nvr::testing

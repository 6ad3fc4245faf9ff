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
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

extern char** environ;

namespace nvr::testing {
namespace {

using Orologio = std::chrono::steady_clock;

// Debian's interpreter on purpose: a python3 earlier on PATH (pyenv, venv)
// usually lacks the gi bindings.
constexpr const char* kPython = "/usr/bin/python3";
constexpr const char* kPercorso = "/cam";
constexpr int kTentativiPorta = 3;

std::string percorso_script() {
#ifdef NVR_SORGENTI
  return std::string(NVR_SORGENTI) + "/testing/camera_rtsp.py";
#else
  std::error_code ec;
  const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return "testing/camera_rtsp.py";
  return (exe.parent_path() / ".." / "testing" / "camera_rtsp.py").lexically_normal().string();
#endif
}

// The last part of the child's stderr: enough to explain a failure in a skip message.
std::string coda_log(const std::string& percorso) {
  std::ifstream in(percorso);
  std::stringstream ss;
  ss << in.rdbuf();
  std::string testo = ss.str();
  while (!testo.empty() && (testo.back() == '\n' || testo.back() == ' ')) testo.pop_back();
  constexpr std::size_t kMax = 1500;
  if (testo.size() > kMax) testo = "..." + testo.substr(testo.size() - kMax);
  return testo.empty() ? "(no stderr output)" : testo;
}

std::string descrivi_stato(int stato) {
  if (WIFEXITED(stato)) return "exit status " + std::to_string(WEXITSTATUS(stato));
  if (WIFSIGNALED(stato)) return "killed by signal " + std::to_string(WTERMSIG(stato));
  return "status " + std::to_string(stato);
}

// Reaps `pid` if it ends within `secondi`. ECHILD counts as ended: with
// SIGCHLD ignored the kernel reaps for us and there is nothing left to wait for.
bool attendi_uscita(pid_t pid, double secondi, int* stato) {
  const auto limite = Orologio::now() + std::chrono::duration<double>(secondi);
  *stato = 0;
  for (;;) {
    const pid_t r = waitpid(pid, stato, WNOHANG);
    if (r == pid) return true;
    if (r < 0 && errno != EINTR) return true;
    if (Orologio::now() >= limite) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace

std::string file_in_loop() {
  const char* cartella = std::getenv("NVR_CACHE_BENCH");
  const std::string c = cartella != nullptr && *cartella != '\0' ? cartella : "/var/tmp/nvr-bench";
  return c + "/testsrc2_1080p30_4M_gop60_20s.h264";
}

int porta_libera() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ind.sin_port = 0;
  socklen_t lung = sizeof(ind);
  int porta = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&ind), &lung) == 0) {
    porta = ntohs(ind.sin_port);
  }
  close(fd);
  return porta;
}

std::unique_ptr<CameraRtsp> CameraRtsp::avvia(std::string* motivo, double attesa, int porta,
                                              Sorgente sorgente) {
  std::string scarto;
  if (motivo == nullptr) motivo = &scarto;
  const std::string script = percorso_script();
  if (access(script.c_str(), R_OK) != 0) {
    *motivo = "camera script not found: " + script;
    return nullptr;
  }
  if (access(kPython, X_OK) != 0) {
    *motivo = std::string(kPython) + " not available";
    return nullptr;
  }

  const std::string file = file_in_loop();
  if (sorgente == Sorgente::kFileInLoop && access(file.c_str(), R_OK) != 0) attesa += 300;
  const auto limite = Orologio::now() + std::chrono::duration<double>(attesa);
  // porta_libera() only says the port was free a moment ago; if someone grabs
  // it before the camera binds, the camera says so and we try another one.
  for (int tentativo = 0; tentativo < kTentativiPorta; ++tentativo) {
    std::unique_ptr<CameraRtsp> cam(new CameraRtsp);
    cam->porta_ = porta > 0 ? porta : porta_libera();
    if (cam->porta_ < 0) {
      *motivo = std::string("no free port on 127.0.0.1: ") + std::strerror(errno);
      return nullptr;
    }
    cam->url_ = "rtsp://127.0.0.1:" + std::to_string(cam->porta_) + kPercorso;

    char modello[] = "/tmp/nvr_camera_rtsp_XXXXXX.log";
    const int fd_err = mkostemps(modello, 4, O_CLOEXEC);
    if (fd_err < 0) {
      *motivo = std::string("cannot create camera log in /tmp: ") + std::strerror(errno);
      return nullptr;
    }
    cam->log_errori_ = modello;

    // Close-on-exec so that processes spawned later (the recorder's ffmpeg)
    // do not inherit the read end and keep the camera's "parent alive" signal.
    int tubo[2];
    if (pipe2(tubo, O_CLOEXEC) != 0) {
      *motivo = std::string("pipe2: ") + std::strerror(errno);
      close(fd_err);
      return nullptr;
    }

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
    sigaddset(&predefiniti, SIGTERM);
    sigaddset(&predefiniti, SIGINT);
    sigaddset(&predefiniti, SIGPIPE);
    posix_spawnattr_setsigmask(&attr, &vuoto);
    posix_spawnattr_setsigdefault(&attr, &predefiniti);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    const std::string porta_testo = std::to_string(cam->porta_);
    // -E: ignore PYTHONPATH/PYTHONHOME that may point at another interpreter's tree.
    std::vector<std::string> args = {kPython,     "-E",     script,   "--port",
                                     porta_testo, "--path", kPercorso};
    if (sorgente == Sorgente::kFileInLoop) {
      args.push_back("--loop-file");
      args.push_back(file);
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    pid_t pid = -1;
    const int rc = posix_spawn(&pid, kPython, &azioni, &attr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&azioni);
    posix_spawnattr_destroy(&attr);
    close(tubo[1]);
    close(fd_err);
    cam->pipe_uscita_ = tubo[0];
    if (rc != 0) {
      *motivo = std::string("posix_spawn ") + kPython + ": " + std::strerror(rc);
      return nullptr;
    }
    cam->pid_ = pid;

    std::string letto;
    bool eof = false;
    while (!eof && letto.find('\n') == std::string::npos) {
      const auto resto = std::chrono::duration_cast<std::chrono::milliseconds>(limite - Orologio::now());
      if (resto.count() <= 0) break;
      pollfd pfd{cam->pipe_uscita_, POLLIN, 0};
      const int pr = poll(&pfd, 1, static_cast<int>(resto.count()));
      if (pr < 0 && errno != EINTR) break;
      if (pr <= 0) continue;
      char buf[256];
      const ssize_t n = read(cam->pipe_uscita_, buf, sizeof(buf));
      if (n > 0) {
        letto.append(buf, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        eof = true;
      }
    }

    const auto a_capo = letto.find('\n');
    if (a_capo != std::string::npos) {
      if (letto.compare(0, a_capo, "pronta " + cam->url_) == 0) {
        motivo->clear();
        return cam;
      }
      *motivo = "camera printed an unexpected line: " + letto.substr(0, a_capo);
      return nullptr;
    }
    if (!eof) {
      char secondi[32];
      std::snprintf(secondi, sizeof(secondi), "%.1f", attesa);
      *motivo = std::string("camera not ready within ") + secondi + " s: " + coda_log(cam->log_errori_);
      return nullptr;
    }
    // Stdout closed without the ready line: the script died; say how.
    int stato = 0;
    std::string come = "closed its stdout";
    if (attendi_uscita(cam->pid_, 2.0, &stato)) {
      cam->pid_ = -1;
      come = "exited (" + descrivi_stato(stato) + ")";
    }
    const std::string log = coda_log(cam->log_errori_);
    *motivo = "camera " + come + " before being ready: " + log;
    if (log.find("cannot listen") == std::string::npos) return nullptr;
  }
  return nullptr;
}

CameraRtsp::~CameraRtsp() { ferma(); }

void CameraRtsp::sospendi() {
  if (pid_ <= 0 || sospesa_) return;
  if (kill(pid_, SIGSTOP) != 0) return;
  // Wait until it is really stopped, so a test's "camera frozen since" instant is exact.
  int stato = 0;
  pid_t r;
  do {
    r = waitpid(pid_, &stato, WUNTRACED);
  } while (r < 0 && errno == EINTR);
  if (r == pid_ && !WIFSTOPPED(stato)) {
    pid_ = -1;  // it died instead, and is now reaped
    return;
  }
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
    // A stopped process would keep SIGTERM pending forever.
    kill(pid_, SIGCONT);
    int stato = 0;
    if (!attendi_uscita(pid_, 5.0, &stato)) {
      kill(pid_, SIGKILL);
      while (waitpid(pid_, &stato, 0) < 0 && errno == EINTR) {
      }
    }
    pid_ = -1;
    sospesa_ = false;
  }
  if (pipe_uscita_ >= 0) {
    close(pipe_uscita_);
    pipe_uscita_ = -1;
  }
  if (!log_errori_.empty()) {
    unlink(log_errori_.c_str());
    log_errori_.clear();
  }
}

}  // namespace nvr::testing

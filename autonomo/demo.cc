#include "autonomo/demo.h"

#include <signal.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "core/log.h"

namespace nvr::autonomo {

std::vector<std::string> argomenti_demo(int porta) {
  return {"ffmpeg",      "-nostdin", "-hide_banner", "-loglevel", "error",
          "-re",         "-f",       "lavfi",        "-i",        "testsrc2=size=640x360:rate=15",
          "-c:v",        "libx264",  "-preset",      "ultrafast", "-tune",
          "zerolatency", "-g",       "30",           "-f",        "mpegts",
          "-listen",     "1",        url_demo(porta)};
}

std::string url_demo(int porta) { return "http://127.0.0.1:" + std::to_string(porta) + "/demo.ts"; }

bool GeneratoreDemo::attendi_ascolto(int porta, double secondi) const {
  auto in_ascolto = [porta] {
    std::ifstream f("/proc/net/tcp");
    std::string riga;
    std::getline(f, riga);  // the column titles
    while (std::getline(f, riga)) {
      std::istringstream campi(riga);
      std::string numero, locale, remoto, stato;
      campi >> numero >> locale >> remoto >> stato;
      const auto due_punti = locale.find(':');
      if (due_punti == std::string::npos || stato != "0A") continue;  // 0A: LISTEN
      if (std::stoi(locale.substr(due_punti + 1), nullptr, 16) == porta) return true;
    }
    return false;
  };
  const auto fine = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondi);
  while (!in_ascolto()) {
    if (std::chrono::steady_clock::now() >= fine) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return true;
}

void GeneratoreDemo::avvia(int porta) {
  std::lock_guard l(m_);
  if (thread_.joinable()) return;
  fermare_ = false;
  thread_ = std::thread([this, porta] { sorveglia(porta); });
}

void GeneratoreDemo::sorveglia(int porta) {
  using namespace std::chrono;
  for (;;) {
    auto avviato = avvia_processo({argomenti_demo(porta)});
    const auto partenza = steady_clock::now();
    std::shared_ptr<Processo> p;
    if (avviato) {
      p = avviato.valore();
    } else {
      _log("demo: ffmpeg non parte: " + avviato.errore().messaggio);
    }
    {
      std::unique_lock l(m_);
      attuale_ = p;
      if (fermare_) break;
    }
    // Poll the child without holding the mutex, waking early when asked to stop.
    while (p && !p->terminato()) {
      std::unique_lock l(m_);
      if (cv_.wait_for(l, milliseconds(200), [this] { return fermare_; })) return;
    }
    std::unique_lock l(m_);
    if (steady_clock::now() - partenza < seconds(2))
      cv_.wait_for(l, seconds(2), [this] { return fermare_; });
    if (fermare_) return;
  }
}

void GeneratoreDemo::ferma() {
  std::shared_ptr<Processo> p;
  std::thread t;
  {
    std::lock_guard l(m_);
    fermare_ = true;
    p = attuale_;
    t = std::move(thread_);
  }
  cv_.notify_all();
  if (t.joinable()) t.join();
  {
    std::lock_guard l(m_);
    p = attuale_ ? attuale_ : p;
    attuale_.reset();
  }
  if (!p) return;
  p->segnala_gruppo(SIGINT);
  if (!p->attendi(3.0)) {
    p->segnala_gruppo(SIGKILL);
    p->attendi(2.0);
  }
}

}  // namespace nvr::autonomo

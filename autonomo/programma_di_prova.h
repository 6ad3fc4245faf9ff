// The built nvr program as a child process for end-to-end tests: started on a free port with
// a temporary data folder, its output collected, spoken to over real HTTP on loopback.
#pragma once

#include <fcntl.h>
#include <httplib.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/json.h"
#include "core/processo.h"
#include "testing/camera_rtsp.h"

namespace nvr::autonomo::prova {

inline bool attendi(const std::function<bool()>& condizione, double secondi) {
  auto fine = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondi);
  while (std::chrono::steady_clock::now() < fine) {
    if (condizione()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return condizione();
}

// Reads a child's output pipe to the end in a thread, so the child never blocks on a full pipe.
class Lettore {
 public:
  explicit Lettore(int fd) : fd_(fd), t_([this] { leggi(); }) {}
  ~Lettore() {
    t_.join();
    ::close(fd_);
  }
  std::string testo() const {
    std::lock_guard l(m_);
    return testo_;
  }
  // The first line that begins with `prefisso`, waiting up to `secondi`.
  std::optional<std::string> riga(const std::string& prefisso, double secondi) const {
    std::unique_lock l(m_);
    std::optional<std::string> trovata;
    cv_.wait_for(l, std::chrono::duration<double>(secondi), [&] {
      for (std::size_t i = 0; i < testo_.size();) {
        std::size_t fine = testo_.find('\n', i);
        if (fine == std::string::npos) break;
        if (testo_.compare(i, prefisso.size(), prefisso) == 0) {
          trovata = testo_.substr(i, fine - i);
          return true;
        }
        i = fine + 1;
      }
      return chiuso_;
    });
    return trovata;
  }

 private:
  void leggi() {
    char b[4096];
    for (;;) {
      ssize_t n = ::read(fd_, b, sizeof(b));
      if (n < 0 && errno == EINTR) continue;
      std::lock_guard l(m_);
      if (n <= 0) {
        chiuso_ = true;
        cv_.notify_all();
        return;
      }
      testo_.append(b, static_cast<std::size_t>(n));
      cv_.notify_all();
    }
  }
  int fd_;
  mutable std::mutex m_;
  mutable std::condition_variable cv_;
  std::string testo_;
  bool chiuso_ = false;
  std::thread t_;
};

struct RispostaHttp {
  int status = 0;  // 0: no answer at all
  std::string corpo;
  Json json;
  httplib::Headers intestazioni;
  std::string intestazione(const std::string& nome) const {
    auto it = intestazioni.find(nome);
    return it == intestazioni.end() ? "" : it->second;
  }
};

class Programma {
 public:
  // Starts NVR_PROGRAMMA with `argomenti` (the port and data folder are the caller's), or the
  // command `argomenti` as it is when `comando` is true.
  explicit Programma(std::vector<std::string> argomenti, bool comando = false) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return;
    if (!comando) argomenti.insert(argomenti.begin(), NVR_PROGRAMMA);
    auto p = avvia_processo({argomenti, out[1], err[1], true});
    ::close(out[1]);
    ::close(err[1]);
    uscita_ = std::make_unique<Lettore>(out[0]);
    errori_ = std::make_unique<Lettore>(err[0]);
    if (p) proc_ = p.valore();
  }
  // Starts it on a free port with data folder `dati` and the extra arguments.
  void imposta_porta(int porta) { porta_ = porta; }
  static std::unique_ptr<Programma> su(const std::string& dati,
                                       std::vector<std::string> altro = {}) {
    const int porta = testing::porta_libera();
    std::vector<std::string> a = {"--porta", std::to_string(porta), "--dati", dati};
    a.insert(a.end(), altro.begin(), altro.end());
    auto p = std::make_unique<Programma>(a);
    p->porta_ = porta;
    return p;
  }
  ~Programma() {
    if (proc_ && !proc_->terminato()) {
      proc_->segnala(SIGTERM);
      if (!proc_->attendi(30)) proc_->segnala_gruppo(SIGKILL);
      proc_->attendi(5);
    }
    proc_.reset();
  }

  // Waits for the line saying where to connect; false when the program ended instead.
  bool pronto(double secondi = 20) { return uscita_->riga("nvr in ascolto:", secondi).has_value(); }
  // The password printed at the first start, "" when none was printed.
  std::string password(double secondi = 20) {
    auto r = uscita_->riga("Password dell'amministratore: ", secondi);
    if (!r) return "";
    auto inizio = r->find(": ") + 2;
    return r->substr(inizio, r->find(' ', inizio) - inizio);
  }
  std::string uscita() const { return uscita_->testo(); }
  std::string errori() const { return errori_->testo(); }
  // The exit status once it ended within `secondi` (minus the signal number), else nothing.
  std::optional<int> fine(double secondi) {
    if (!proc_ || !proc_->attendi(secondi)) return std::nullopt;
    return proc_->codice();
  }
  void segnala(int sig) { proc_->segnala(sig); }
  pid_t pid() const { return proc_ ? proc_->pid() : -1; }
  int porta() const { return porta_; }

  // Logs in with the printed password and keeps the cookie for the following requests.
  bool accedi() {
    auto r = chiama("POST", "/api/accesso", Json{{"password", password()}}.dump());
    auto c = r.intestazione("Set-Cookie");
    cookie_ = c.substr(0, c.find(';'));
    return r.status == 200 && !cookie_.empty();
  }
  void dimentica_cookie() { cookie_.clear(); }

  RispostaHttp chiama(const std::string& metodo, const std::string& percorso,
                      const std::string& corpo = "", httplib::Headers h = {}) {
    httplib::Client c("127.0.0.1", porta_);
    c.set_read_timeout(60, 0);
    if (!cookie_.empty()) h.emplace("Cookie", cookie_);
    httplib::Result r = metodo == "GET"      ? c.Get(percorso, h)
                        : metodo == "DELETE" ? c.Delete(percorso, h, corpo, "application/json")
                        : metodo == "PUT"    ? c.Put(percorso, h, corpo, "application/json")
                                             : c.Post(percorso, h, corpo, "application/json");
    RispostaHttp risposta;
    if (!r) return risposta;
    risposta.status = r->status;
    risposta.corpo = r->body;
    risposta.intestazioni = r->headers;
    risposta.json = leggi_json(r->body).value_or(Json());
    return risposta;
  }
  RispostaHttp get(const std::string& p, httplib::Headers h = {}) {
    return chiama("GET", p, "", h);
  }
  RispostaHttp post(const std::string& p, const Json& j) { return chiama("POST", p, j.dump()); }
  RispostaHttp elimina(const std::string& p, const Json& j = Json::object()) {
    return chiama("DELETE", p, j.dump());
  }

 private:
  std::shared_ptr<Processo> proc_;
  std::unique_ptr<Lettore> uscita_, errori_;
  int porta_ = 0;
  std::string cookie_;
};

}  // namespace nvr::autonomo::prova

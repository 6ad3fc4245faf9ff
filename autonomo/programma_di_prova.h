// The built nvr program as a child process for end-to-end tests: started on a free port with
// a temporary data folder, its output collected, spoken to over real HTTP on loopback.
#pragma once

#include <httplib.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
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

// A child's output, kept in an anonymous in-memory file and read from the start at any time: the
// child never blocks on a full pipe, and no reader thread has to outlive it.
class Uscita {
 public:
  Uscita() : fd_(::memfd_create("nvr-prova", MFD_CLOEXEC)) {}
  ~Uscita() { ::close(fd_); }
  int fd() const { return fd_; }
  std::string testo() const {
    std::string t;
    char b[65536];
    for (ssize_t n; (n = ::pread(fd_, b, sizeof b, static_cast<off_t>(t.size()))) > 0;)
      t.append(b, static_cast<std::size_t>(n));
    return t;
  }

 private:
  int fd_;
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
    if (!comando) argomenti.insert(argomenti.begin(), NVR_PROGRAMMA);
    auto p = avvia_processo({argomenti, uscita_.fd(), errori_.fd(), true});
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
  bool pronto(double secondi = 20) { return riga("nvr in ascolto:", secondi).has_value(); }
  // The password printed at the first start, "" when none was printed.
  std::string password(double secondi = 20) {
    auto r = riga("Password dell'amministratore: ", secondi);
    if (!r) return "";
    auto inizio = r->find(": ") + 2;
    return r->substr(inizio, r->find(' ', inizio) - inizio);
  }
  std::string uscita() const { return uscita_.testo(); }
  std::string errori() const { return errori_.testo(); }
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
  // The first whole output line that begins with `prefisso`, waiting up to `secondi`; nothing
  // once the program ended without it.
  std::optional<std::string> riga(const std::string& prefisso, double secondi) {
    std::optional<std::string> trovata;
    attendi(
        [&] {
          const bool finito = !proc_ || proc_->terminato();  // before reading: nothing is missed
          std::string t = uscita_.testo();
          std::istringstream righe(t.erase(t.rfind('\n') + 1));  // a line still being written waits
          for (std::string r; !trovata && std::getline(righe, r);)
            if (r.starts_with(prefisso)) trovata = r;
          return trovata || finito;
        },
        secondi);
    return trovata;
  }

  Uscita uscita_, errori_;
  std::shared_ptr<Processo> proc_;
  int porta_ = 0;
  std::string cookie_;
};

}  // namespace nvr::autonomo::prova

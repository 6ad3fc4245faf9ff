#include "storage/comando.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "core/condiviso.h"
#include "core/processo.h"
#include "core/stato.h"
#include "core/tempo.h"

namespace nvr {

namespace {
// Whether the recorder may act as root through sudo, and when that was last asked; a race
// between two callers only asks twice.
struct StatoSudo {
  std::optional<bool> ok;  // absent: never asked
  double ts = 0.0;
  std::string err;
};
Condiviso<StatoSudo> _sudo;
}  // namespace

void azzera_sudo_per_test() { _sudo.set({}); }

namespace {

// Both ends of a pipe, closed on every path.
struct Tubo {
  int fd[2] = {-1, -1};
  bool apri() { return ::pipe2(fd, O_CLOEXEC) == 0; }
  void chiudi(int i) {
    if (fd[i] >= 0) ::close(fd[i]);
    fd[i] = -1;
  }
  ~Tubo() {
    chiudi(0);
    chiudi(1);
  }
};

}  // namespace

RisultatoComando _comando(const std::vector<std::string>& args, double timeout) {
  if (args.empty()) return {1, "", "comando vuoto"};
  Tubo out, err;
  if (!out.apri() || !err.apri()) return {1, "", std::strerror(errno)};

  Avvio avvio;
  avvio.argomenti = args;
  avvio.fd_stdout = out.fd[1];
  avvio.fd_stderr = err.fd[1];
  auto esito = avvia_processo(avvio);
  if (!esito) {
    if (esito.errore().codice == ENOENT) return {127, "", "comando non presente: " + args[0]};
    return {1, "", esito.errore().messaggio};
  }
  std::shared_ptr<Processo> proc = esito.valore();
  out.chiudi(1);
  err.chiudi(1);

  using Orologio = std::chrono::steady_clock;
  auto scadenza = Orologio::now() + std::chrono::duration_cast<Orologio::duration>(
                                        std::chrono::duration<double>(timeout));
  std::string testi[2];
  int aperti[2] = {out.fd[0], err.fd[0]};
  bool scaduto = false;
  while (aperti[0] >= 0 || aperti[1] >= 0) {
    auto resta = std::chrono::duration_cast<std::chrono::milliseconds>(scadenza - Orologio::now());
    if (resta.count() <= 0) {
      scaduto = true;
      break;
    }
    pollfd pf[2];
    int n = 0;
    for (int i = 0; i < 2; ++i)
      if (aperti[i] >= 0) pf[n++] = {aperti[i], POLLIN, 0};
    int r = ::poll(pf, static_cast<nfds_t>(n), static_cast<int>(resta.count()));
    if (r < 0 && errno != EINTR) break;
    for (int k = 0; k < n; ++k) {
      if (!(pf[k].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      int i = pf[k].fd == aperti[0] ? 0 : 1;
      char buf[8192];
      ssize_t letti = ::read(pf[k].fd, buf, sizeof buf);
      if (letti > 0)
        testi[i].append(buf, static_cast<std::size_t>(letti));
      else if (letti == 0 || errno != EINTR)
        aperti[i] = -1;
    }
  }
  if (!scaduto) {
    double resta = std::chrono::duration<double>(scadenza - Orologio::now()).count();
    scaduto = !proc->attendi(resta > 0 ? resta : 0);
  }
  if (scaduto) {
    // The whole group goes: a shell's children must not survive their command's time-out.
    proc->segnala_gruppo(SIGKILL);
    proc->attendi(5);
    return {124, "", "tempo scaduto"};
  }
  return {proc->codice().value_or(1), std::move(testi[0]), std::move(testi[1])};
}

bool _sono_root() { return ::geteuid() == 0; }

UtenteApp _utente_app() {
  UtenteApp u;
  u.uid = ::getuid();
  u.gid = ::getgid();
  for (const char* var : {"USER", "LOGNAME"}) {
    const char* v = std::getenv(var);
    if (v && *v) {
      u.nome = v;
      return u;
    }
  }
  passwd pw;
  passwd* trovato = nullptr;
  char buf[4096];
  if (::getpwuid_r(u.uid, &pw, buf, sizeof buf, &trovato) == 0 && trovato && trovato->pw_name)
    u.nome = trovato->pw_name;
  if (u.nome.empty()) u.nome = std::to_string(u.uid);
  return u;
}

RisultatoComando _radice(const std::vector<std::string>& args, double timeout) {
  if (_sono_root()) return _comando(args, timeout);

  StatoSudo sudo = _sudo.get();
  if (!sudo.ok.has_value() || _ora() - sudo.ts > 60) {
    RisultatoComando prova = _comando({"sudo", "-n", "true"}, 10);
    sudo.ok = prova.codice == 0;
    sudo.ts = _ora();
    sudo.err = prova.err;
    _sudo.set(sudo);
  }
  if (*sudo.ok) {
    std::vector<std::string> con_sudo = {"sudo", "-n"};
    con_sudo.insert(con_sudo.end(), args.begin(), args.end());
    return _comando(con_sudo, timeout);
  }
  std::string nome = _utente_app().nome;
  if (sudo.err.find("comando non presente") != std::string::npos)
    return {126, "",
            "il server gira come utente " + nome + " (non root) e sudo non c'e': avvialo come root"};
  return {126, "",
          "il server gira come utente " + nome +
              " (non root) e sudo chiede la password: avvialo con  sudo  oppure dal servizio "
              "zuna_os (systemctl start zuna_os)"};
}

}  // namespace nvr

#include "autonomo/servizio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "core/log.h"

namespace nvr::autonomo {

namespace {
std::atomic<bool> in_arresto{false};
}

bool motore_vivo(double adesso, double ultimo_segno, double avvio, double limite) {
  return adesso - std::max(ultimo_segno, avvio) <= limite;
}

double adesso_monotono() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void notifica_pronto(const std::string& stato) {
  (void)sd_notifyf(0, "READY=1\nSTATUS=%s", stato.c_str());
}

void notifica_arresto() {
  in_arresto = true;
  (void)sd_notify(0, "STOPPING=1\nSTATUS=Arresto: registrazioni in chiusura");
}

void avvia_cane_da_guardia(std::function<bool()> vivo) {
  uint64_t intervallo_us = 0;
  if (sd_watchdog_enabled(0, &intervallo_us) <= 0 || intervallo_us == 0) return;
  const auto passo = std::chrono::microseconds(intervallo_us / 3);
  std::thread([vivo = std::move(vivo), passo] {
    bool taciuto = false;
    for (;;) {
      bool ok = true;
      try {
        ok = in_arresto || vivo();
      } catch (...) {
        ok = false;
      }
      if (ok) {
        (void)sd_notify(0, "WATCHDOG=1");
        taciuto = false;
      } else if (!taciuto) {
        taciuto = true;
        _log("motore bloccato: il servizio sara' riavviato se non riprende");
      }
      std::this_thread::sleep_for(passo);
    }
  }).detach();
}

Esito<std::string> scrivi_password_iniziale(const std::string& dati, const std::string& password) {
  const std::string file = dati + "/password-iniziale";
  auto fallito = [&](int e) {
    return Errore{e, "Password iniziale non scritta in " + file + ": " + std::strerror(e)};
  };
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return fallito(errno);
  // An older file may have had wider rights: narrow them before the secret goes in.
  const std::string riga = password + "\n";
  int e = ::fchmod(fd, 0600) == 0 ? 0 : errno;
  errno = 0;
  if (e == 0 && ::write(fd, riga.data(), riga.size()) != static_cast<ssize_t>(riga.size()))
    e = errno ? errno : EIO;
  if (e == 0 && ::fsync(fd) != 0) e = errno;
  ::close(fd);
  if (e != 0) return fallito(e);
  return file;
}

}  // namespace nvr::autonomo

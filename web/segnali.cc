#include "web/segnali.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "core/segnale_nel_thread.h"

namespace nvr {

namespace {

struct sigaction precedente;

std::mutex uscita_m;
std::vector<std::function<void()>>* azioni = nullptr;  // uscita_m; never freed: used during exit
bool uscita_fatta = false;                             // uscita_m

void esegui_uscita() {
  std::vector<std::function<void()>> da_fare;
  {
    std::lock_guard l(uscita_m);
    if (uscita_fatta || !azioni) return;
    uscita_fatta = true;
    da_fare = *azioni;
  }
  for (auto& a : da_fare) {
    try {
      a();
    } catch (...) {
    }
  }
}

// One SIGTERM, in the watcher thread: the host's action, then the previous handler or the exit.
void dopo_sigterm(const std::function<void()>& gestore) {
  try {
    gestore();
  } catch (...) {
  }
  bool ha_gestore = (precedente.sa_flags & SA_SIGINFO)
                          ? precedente.sa_sigaction != nullptr
                          : (precedente.sa_handler != SIG_DFL && precedente.sa_handler != SIG_IGN);
  if (ha_gestore) {
    if (precedente.sa_flags & SA_SIGINFO)
      precedente.sa_sigaction(SIGTERM, nullptr, nullptr);
    else
      precedente.sa_handler(SIGTERM);
    return;
  }
  esegui_uscita();
  std::fflush(nullptr);
  ::_exit(0);  // no static destructors while other threads may still run
}

}  // namespace

void installa_sigterm_nativo(std::function<void()> gestore) {
  segnale_nel_thread(
      SIGTERM, [gestore = std::move(gestore)] { dopo_sigterm(gestore); }, &precedente);
}

void registra_uscita_nativa(std::function<void()> azione) {
  std::lock_guard l(uscita_m);
  if (!azioni) {
    azioni = new std::vector<std::function<void()>>();
    std::atexit(esegui_uscita);
  }
  azioni->push_back(std::move(azione));
}

}  // namespace nvr

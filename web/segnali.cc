#include "web/segnali.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace nvr {

namespace {

int tubo[2] = {-1, -1};
struct sigaction precedente;

std::mutex uscita_m;
std::vector<std::function<void()>>* azioni = nullptr;  // never freed: used during exit
bool uscita_fatta = false;

void su_segnale(int) {
  int salvato = errno;
  char c = 1;
  [[maybe_unused]] ssize_t n = ::write(tubo[1], &c, 1);
  errno = salvato;
}

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

void sorveglia(std::function<void()> gestore) {
  for (;;) {
    char c;
    ssize_t n = ::read(tubo[0], &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
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
      continue;
    }
    esegui_uscita();
    std::fflush(nullptr);
    ::_exit(0);  // no static destructors while other threads may still run
  }
}

}  // namespace

void installa_sigterm_nativo(std::function<void()> gestore) {
  if (::pipe2(tubo, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
  std::thread(sorveglia, std::move(gestore)).detach();
  struct sigaction sa {};
  sa.sa_handler = su_segnale;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  if (::sigaction(SIGTERM, &sa, &precedente) != 0)
    throw std::system_error(errno, std::generic_category());
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

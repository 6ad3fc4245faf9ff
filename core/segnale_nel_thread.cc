#include "core/segnale_nel_thread.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>

namespace nvr {

namespace {

std::array<std::atomic<int>, NSIG> scrittura{};  // per signal: the pipe's write end, 0 for none

void su_segnale(int segnale) {
  const int salvato = errno;
  char c = 1;
  [[maybe_unused]] ssize_t n = ::write(scrittura[segnale].load(), &c, 1);
  errno = salvato;
}

}  // namespace

void segnale_nel_thread(int segnale, std::function<void()> azione, struct sigaction* precedente) {
  int tubo[2];
  if (::pipe2(tubo, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
  scrittura[segnale].store(tubo[1]);
  std::thread([lettura = tubo[0], azione = std::move(azione)] {
    for (;;) {
      char c;
      const ssize_t n = ::read(lettura, &c, 1);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      azione();
    }
  }).detach();
  struct sigaction sa {};
  sa.sa_handler = su_segnale;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  if (::sigaction(segnale, &sa, precedente) != 0)
    throw std::system_error(errno, std::generic_category());
}

}  // namespace nvr

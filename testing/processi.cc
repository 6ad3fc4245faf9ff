#include "testing/processi.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <thread>

namespace nvr::testing {

namespace {

// Plain read(2): a process that ends between open and read makes the read fail with ESRCH,
// which a std::ifstream turns into an exception out of its buffer.
std::optional<std::string> leggi_proc(pid_t pid, const char* voce) {
  const std::string percorso = "/proc/" + std::to_string(pid) + "/" + voce;
  const int fd = ::open(percorso.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string testo;
  char b[4096];
  for (;;) {
    const ssize_t n = ::read(fd, b, sizeof(b));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    testo.append(b, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return testo;
}

}  // namespace

std::vector<std::string> riga_di_comando(pid_t pid) {
  std::vector<std::string> argomenti;
  std::istringstream in(leggi_proc(pid, "cmdline").value_or(""));
  for (std::string a; std::getline(in, a, '\0');) argomenti.push_back(a);
  return argomenti;
}

std::optional<char> stato_processo(pid_t pid) {
  auto stat = leggi_proc(pid, "stat");
  if (!stat) return std::nullopt;
  auto p = stat->rfind(')');  // the command name may itself hold ')' or spaces
  if (p == std::string::npos || p + 2 >= stat->size()) return std::nullopt;
  return (*stat)[p + 2];
}

bool attendi_sparito(pid_t pid, double secondi) {
  auto fine = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondi);
  for (;;) {
    if (!stato_processo(pid)) return true;
    if (std::chrono::steady_clock::now() >= fine) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

VariabileDiProva::VariabileDiProva(std::string nome, const std::string& valore)
    : nome_(std::move(nome)) {
  if (const char* v = ::getenv(nome_.c_str())) prima_ = v;
  ::setenv(nome_.c_str(), valore.c_str(), 1);
}

VariabileDiProva::~VariabileDiProva() {
  if (prima_)
    ::setenv(nome_.c_str(), prima_->c_str(), 1);
  else
    ::unsetenv(nome_.c_str());
}

}  // namespace nvr::testing

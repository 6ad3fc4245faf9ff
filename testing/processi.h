// Test helpers around processes: what the kernel says about a pid, and environment overrides.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace nvr::testing {

// The argument list of a running process, from /proc/<pid>/cmdline; empty when it is gone.
std::vector<std::string> riga_di_comando(pid_t pid);

// The one-letter state of /proc/<pid>/stat ('R', 'S', 'Z', ...); nothing when no such process
// exists any more (it has been reaped).
std::optional<char> stato_processo(pid_t pid);

// Polls until `pid` has been reaped (no /proc entry left) or `secondi` pass; answers whether it
// is gone.
bool attendi_sparito(pid_t pid, double secondi);

// Sets an environment variable for the lifetime of the object and then restores it. Use it only
// while no other thread of the test reads the environment.
class VariabileDiProva {
 public:
  VariabileDiProva(std::string nome, const std::string& valore);
  ~VariabileDiProva();
  VariabileDiProva(const VariabileDiProva&) = delete;
  VariabileDiProva& operator=(const VariabileDiProva&) = delete;

 private:
  std::string nome_;
  std::optional<std::string> prima_;
};

}  // namespace nvr::testing

// Child processes: started without a shell, watched, signalled and always reaped.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/esito.h"

namespace nvr {

class Processo {
 public:
  explicit Processo(pid_t pid) : pid_(pid) {}
  Processo(const Processo&) = delete;
  Processo& operator=(const Processo&) = delete;
  // A child that was never reaped is reaped by a background waiter: nothing is killed, and no
  // zombie is left behind.
  ~Processo();

  pid_t pid() const { return pid_; }

  // Non-blocking: true once the child has ended (it is then reaped).
  bool terminato();
  // Exit status once ended: the exit code, or minus the signal number that ended it.
  std::optional<int> codice();
  // Blocks up to `secondi` (polling); true when the child has ended.
  bool attendi(double secondi);
  // Sends `sig` to the child while it has not been reaped (its pid cannot have been reused).
  void segnala(int sig);
  // Like segnala, to the child's whole process group (it leads its own session).
  void segnala_gruppo(int sig);

 private:
  bool raccogli(bool blocca);  // must hold m_

  const pid_t pid_;
  std::mutex m_;
  bool raccolto_ = false;  // guarded by m_
  int codice_ = 0;         // guarded by m_
};

struct Avvio {
  std::vector<std::string> argomenti;  // the program (looked up on PATH) and its arguments
  int fd_stdout = -1;                  // -1: the null device
  int fd_stderr = -1;                  // -1: the null device
  bool nuova_sessione = true;          // leader of a new session and process group
};

// Starts `avvio.argomenti` with standard input on the null device and every other descriptor of
// this process closed in the child. Does not block. On failure Errore::codice is the errno
// (ENOENT when the program is not on PATH) and the message its text.
Esito<std::shared_ptr<Processo>> avvia_processo(const Avvio& avvio);

// Whether an executable file named `nome` is on PATH (a name with "/" is checked as a path).
bool programma_presente(const std::string& nome);

}  // namespace nvr

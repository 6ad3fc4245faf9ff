#include "core/processo.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>

extern char** environ;

namespace nvr {

Processo::~Processo() {
  std::lock_guard l(m_);
  if (raccolto_) return;
  pid_t pid = pid_;
  std::thread([pid] {
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
  }).detach();
}

bool Processo::raccogli(bool blocca) {
  if (raccolto_) return true;
  int st = 0;
  pid_t r;
  do {
    r = waitpid(pid_, &st, blocca ? 0 : WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == 0) return false;
  raccolto_ = true;
  if (r < 0) {
    codice_ = -1;  // reaped elsewhere (a host that ignores SIGCHLD): the status is lost
  } else if (WIFEXITED(st)) {
    codice_ = WEXITSTATUS(st);
  } else if (WIFSIGNALED(st)) {
    codice_ = -WTERMSIG(st);
  }
  return true;
}

bool Processo::terminato() {
  std::lock_guard l(m_);
  return raccogli(false);
}

std::optional<int> Processo::codice() {
  std::lock_guard l(m_);
  if (!raccogli(false)) return std::nullopt;
  return codice_;
}

bool Processo::attendi(double secondi) {
  auto fine = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondi);
  auto pausa = std::chrono::milliseconds(5);
  for (;;) {
    if (terminato()) return true;
    if (std::chrono::steady_clock::now() >= fine) return false;
    std::this_thread::sleep_for(pausa);
    if (pausa < std::chrono::milliseconds(50)) pausa *= 2;
  }
}

void Processo::segnala(int sig) {
  std::lock_guard l(m_);
  if (!raccolto_) ::kill(pid_, sig);
}

void Processo::segnala_gruppo(int sig) {
  std::lock_guard l(m_);
  if (!raccolto_) ::kill(-pid_, sig);
}

Esito<std::shared_ptr<Processo>> avvia_processo(const Avvio& avvio) {
  if (avvio.argomenti.empty()) return Errore{EINVAL, std::strerror(EINVAL)};
  posix_spawn_file_actions_t azioni;
  posix_spawnattr_t attributi;
  posix_spawn_file_actions_init(&azioni);
  posix_spawnattr_init(&attributi);

  posix_spawn_file_actions_addopen(&azioni, 0, "/dev/null", O_RDONLY, 0);
  if (avvio.fd_stdout >= 0)
    posix_spawn_file_actions_adddup2(&azioni, avvio.fd_stdout, 1);
  else
    posix_spawn_file_actions_addopen(&azioni, 1, "/dev/null", O_WRONLY, 0);
  if (avvio.fd_stderr >= 0)
    posix_spawn_file_actions_adddup2(&azioni, avvio.fd_stderr, 2);
  else
    posix_spawn_file_actions_addopen(&azioni, 2, "/dev/null", O_WRONLY, 0);
  // Sockets and files of the server must not leak into a recorder that outlives it.
  posix_spawn_file_actions_addclosefrom_np(&azioni, 3);

  short flag = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (avvio.nuova_sessione) flag |= POSIX_SPAWN_SETSID;
  posix_spawnattr_setflags(&attributi, flag);
  sigset_t vuoto, tutti;
  sigemptyset(&vuoto);
  sigfillset(&tutti);
  posix_spawnattr_setsigmask(&attributi, &vuoto);
  // The host may ignore SIGINT or SIGPIPE; the child starts with the default dispositions.
  posix_spawnattr_setsigdefault(&attributi, &tutti);

  std::vector<char*> argv;
  for (const auto& a : avvio.argomenti) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  pid_t pid = -1;
  int r = posix_spawnp(&pid, argv[0], &azioni, &attributi, argv.data(), environ);
  posix_spawn_file_actions_destroy(&azioni);
  posix_spawnattr_destroy(&attributi);
  if (r != 0) return Errore{r, std::strerror(r)};
  return std::make_shared<Processo>(pid);
}

bool programma_presente(const std::string& nome) {
  if (nome.empty()) return false;
  auto eseguibile = [](const std::string& p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(p.c_str(), X_OK) == 0;
  };
  if (nome.find('/') != std::string::npos) return eseguibile(nome);
  const char* path = std::getenv("PATH");
  std::string elenco = path ? path : "/usr/local/bin:/usr/bin:/bin";
  std::size_t inizio = 0;
  for (;;) {
    std::size_t fine = elenco.find(':', inizio);
    std::string_view cartella = std::string_view(elenco).substr(inizio, fine - inizio);
    std::string candidato = cartella.empty() ? "./" : std::string(cartella) + "/";
    if (eseguibile(candidato + nome)) return true;
    if (fine == std::string::npos) return false;
    inizio = fine + 1;
  }
}

}  // namespace nvr

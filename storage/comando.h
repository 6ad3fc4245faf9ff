// External commands, with or without root rights.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace nvr {

struct RisultatoComando {
  int codice = 0;    // exit code; 127 program missing, 124 time-out, 1 other failure to run
  std::string out;   // standard output
  std::string err;   // standard error, or the reason the command could not run
};

// Runs `args` (program looked up on PATH, no shell), capturing both outputs, for at most
// `timeout` seconds. Never throws. A program that is not found answers
// (127, "", "comando non presente: <program>"); one that outlives its time is killed together
// with its process group and answers (124, "", "tempo scaduto"); any other failure to run it
// answers (1, "", reason). A program killed by a signal answers minus the signal number.
RisultatoComando _comando(const std::vector<std::string>& args, double timeout = 20);

// True when the effective user is root.
bool _sono_root();

struct UtenteApp {
  uid_t uid = 0;
  gid_t gid = 0;
  std::string nome;  // $USER, else $LOGNAME, else the password database, else the uid in decimal
};
UtenteApp _utente_app();

// Runs `args` with root rights: directly when the process is root, else through "sudo -n" when
// password-less sudo works (probed at most once a minute, the answer cached). Without
// either nothing runs and the answer is 126 with an explanation naming the server's user.
RisultatoComando _radice(const std::vector<std::string>& args, double timeout = 20);

// Forgets whether sudo works, so that the next root command asks again (for tests).
void azzera_sudo_per_test();

}  // namespace nvr

// A bare host process for tests that must kill a server: attaches the recorder to the database
// given as its argument, with guards that let everything through and no web server, wakes the
// engine and then waits for a signal. Its standard output is the recorder's log.
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "core/host.h"
#include "engine/motore.h"
#include "testing/host_web.h"
#include "web/collega.h"
#include "web/segnali.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "uso: server_prova FILE_DATABASE\n");
    return 2;
  }
  auto host = std::make_shared<nvr::Host>();
  host->app = std::make_shared<nvr::testing::AppDiProva>();
  host->login_required = host->admin_required = [](nvr::Vista v) { return v; };
  host->DB_FILE = argv[1];
  host->installa_sigterm = nvr::installa_sigterm_nativo;
  host->registra_uscita = nvr::registra_uscita_nativa;
  nvr::collega(host);
  nvr::_giro_sicuro();
  for (;;) ::pause();
}

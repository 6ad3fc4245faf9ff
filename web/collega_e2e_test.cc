// The native SIGTERM handling of an attached host: the recorders are stopped before the host's
// own handler runs, or the process exits 0. Routes and guards are checked through a real Flask
// host in python/test_collega.py.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "core/processo.h"
#include "core/stato.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "testing/host_web.h"
#include "web/collega.h"
#include "web/segnali.h"

namespace nvr {
namespace {

using testing::HostWeb;

// A recorder stand-in that records the signal that stopped it.
std::shared_ptr<Processo> registratore_finto(const std::string& traccia) {
  auto p = avvia_processo({{"sh", "-c",
                            "trap 'echo INT > " + traccia +
                                "; exit 0' INT; "
                                "while :; do sleep 0.1; done"}});
  return p.ok() ? p.valore() : nullptr;
}

void gestore_precedente(int) { ::_exit(7); }

// In a new process: attaches with the real SIGTERM handling (after installing a previous handler
// that exits with 7, if asked), and checks the recorder saw SIGINT before the process ended.
TEST(SigtermTest, StopsRecordersThenExitsOrRunsThePreviousHandler) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (bool con_precedente : {false, true}) {
    // A fixed path: the death test runs this body again in a new process.
    std::string traccia = "/tmp/nvr_prova_sigterm_" + std::to_string(con_precedente);
    std::filesystem::remove(traccia);
    EXPECT_EXIT(
        {
          if (con_precedente) ::signal(SIGTERM, gestore_precedente);
          HostWeb w;
          w.host->installa_sigterm = installa_sigterm_nativo;
          w.host->registra_uscita = registra_uscita_nativa;
          collega(w.host);
          Registratore r;
          r.proc = registratore_finto(traccia);
          adotta_registratore(1, r);
          std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the trap is in place
          ::raise(SIGTERM);
          std::this_thread::sleep_for(std::chrono::seconds(30));
        },
        ::testing::ExitedWithCode(con_precedente ? 7 : 0), "");
    EXPECT_EQ(testing::leggi_file(traccia), "INT\n");
    std::filesystem::remove(traccia);
  }
}

}  // namespace
}  // namespace nvr

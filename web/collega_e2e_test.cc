// Attaching to a host: once only, every route behind both guards, and the recorders stopped at
// SIGTERM before the host's own handler runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "core/db.h"
#include "core/processo.h"
#include "core/stato.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "testing/host_web.h"
#include "web/collega.h"
#include "web/segnali.h"

namespace nvr {
namespace {

using ::testing::HasSubstr;
using testing::HostWeb;

class CollegaTest : public ::testing::Test {
 protected:
  void TearDown() override {
    arresta_motore();
    attendi_fine_motore();
  }
  HostWeb h;
};

TEST_F(CollegaTest, AttachesOnceWithEveryRouteBehindBothGuards) {
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(collega(h.host));
  std::string log = ::testing::internal::GetCapturedStdout();
  EXPECT_THAT(log, HasSubstr(std::string("[NVR] modulo avviato (ffmpeg: ") +
                             (ffmpeg_presente() ? "True" : "False") + ")\n"));

  std::vector<std::string> viste;
  for (const auto& r : h.app->rotte()) {
    std::string m;
    for (const auto& x : r.metodi) m += " " + x;
    viste.push_back(r.percorso + " " + r.endpoint + m);
  }
  EXPECT_EQ(viste, (std::vector<std::string>{
                       "/api/nvr/config nvr_config GET POST",
                       "/api/nvr/camera nvr_camera POST",
                       "/api/nvr/storage nvr_storage GET",
                       "/api/nvr/storage/monta nvr_monta POST",
                       "/api/nvr/storage/smonta nvr_smonta POST",
                       "/api/nvr/cartelle nvr_cartelle GET POST",
                       "/api/nvr/stato nvr_stato GET",
                       "/api/nvr/installa_ffmpeg nvr_installa_ffmpeg POST",
                       "/api/nvr/riassunto nvr_riassunto GET",
                       "/api/nvr/giorni nvr_giorni GET",
                       "/api/nvr/registrazioni nvr_registrazioni GET",
                       "/api/nvr/video/<int:rid> nvr_video GET",
                       "/api/nvr/registrazione/<int:rid> nvr_elimina DELETE",
                       "/api/nvr/archivio nvr_archivio GET",
                       "/api/nvr/registrazioni nvr_elimina_registrazioni DELETE",
                   }));
  EXPECT_FALSE(collega(h.host));
  EXPECT_EQ(h.app->rotte().size(), 15u);
  EXPECT_EQ(h.uscite.size(), 1u);
  EXPECT_TRUE(h.sigterm);

  Connessione c = _db();  // the tables exist
  EXPECT_EQ(come_intero(c.righe("SELECT COUNT(*) FROM nvr_config")[0][0]), 1);

  // The login guard runs first and turns the request away before anything else.
  h.loggato = false;
  EXPECT_EQ(h.get("/api/nvr/stato").status, 401);
  EXPECT_EQ(h.guardie, std::vector<std::string>{"login"});
  h.loggato = true;
  h.admin = false;
  h.guardie.clear();
  EXPECT_EQ(h.get("/api/nvr/riassunto").status, 403);
  EXPECT_EQ(h.guardie, (std::vector<std::string>{"login", "admin"}));
  h.admin = true;

  // One path, two routes told apart by the method.
  EXPECT_TRUE(h.get("/api/nvr/registrazioni").json.contains("registrazioni"));
  EXPECT_EQ(h.elimina("/api/nvr/registrazioni").json["message"],
            "Unità di archivio non collegata: collegala e riprova.");
  EXPECT_EQ(h.get("/api/nvr/video/abc").status, 404);  // not an integer: no route
  EXPECT_EQ(h.get("/api/nvr/video/-1").status, 404);
}

TEST_F(CollegaTest, HostWithoutAppIsRefusedAndStaysRefused) {
  HostWeb buono;  // made first: a test host starts by resetting the recorder's state
  h.host->app = nullptr;
  try {
    collega(h.host);
    FAIL() << "nessun errore";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "collega(): il modulo passato non ha un oggetto app Flask");
  }
  EXPECT_FALSE(collega(buono.host));
  EXPECT_TRUE(buono.app->rotte().empty());
}

// A recorder stand-in that records the signal that stopped it.
std::shared_ptr<Processo> registratore_finto(const std::string& traccia) {
  auto p = avvia_processo({{"sh", "-c",
                            "trap 'echo INT > " + traccia +
                                "; exit 0' INT; "
                                "while :; do sleep 0.1; done"}});
  return p.ok() ? p.valore() : nullptr;
}

int precedente_chiamato = 0;
void gestore_precedente(int sig) {
  precedente_chiamato = sig;
  ::_exit(7);
}

void attacca_con_segnali_veri(HostWeb& w, const std::string& traccia) {
  w.host->installa_sigterm = installa_sigterm_nativo;
  w.host->registra_uscita = registra_uscita_nativa;
  collega(w.host);
  auto p = registratore_finto(traccia);
  {
    std::lock_guard l(_lock);
    _processi[1].proc = p;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the trap is in place
  ::raise(SIGTERM);
  std::this_thread::sleep_for(std::chrono::seconds(30));
}

// In a new process: attaches with the real SIGTERM handling (after installing a previous handler
// that exits with 7, if asked), and checks the recorder saw SIGINT before the process ended.
void ferma_su_sigterm(bool con_precedente) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A fixed path: the death test runs this body again in a new process.
  std::string traccia = "/tmp/nvr_prova_sigterm_" + std::to_string(con_precedente);
  std::filesystem::remove(traccia);
  EXPECT_EXIT(
      {
        if (con_precedente) ::signal(SIGTERM, gestore_precedente);
        HostWeb w;
        attacca_con_segnali_veri(w, traccia);
      },
      ::testing::ExitedWithCode(con_precedente ? 7 : 0), "");
  EXPECT_EQ(testing::leggi_file(traccia), "INT\n");
  std::filesystem::remove(traccia);
}

TEST(SigtermTest, StopsRecordersThenExitsWithZero) { ferma_su_sigterm(false); }
TEST(SigtermTest, StopsRecordersThenRunsThePreviousHandler) { ferma_su_sigterm(true); }

}  // namespace
}  // namespace nvr

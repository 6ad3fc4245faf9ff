// The program recording the real camera under the faults of its own process and of what it
// depends on: killed with SIGKILL and restarted, its database held by another writer, the camera
// frozen or gone. Each test ends by checking that nothing recorded was lost.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <future>
#include <random>
#include <thread>

#include "testing/processi.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

using std::chrono::duration;

// Recording on with 3 s segments and two rows indexed.
class RegistrazioneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
    ASSERT_TRUE(imp.avvia());
    ASSERT_TRUE(imp.registra(2));
  }
  Impianto imp;
};

// The program killed at random moments and started again on the same data folder: its recorders
// outlive it, the next start stops them so they close their last segment, and that segment is
// indexed once like every other. NVR_AFF_SEME replays a run's delays.
TEST_F(RegistrazioneTest, KilledAndRestartedLosesNothingAndIndexesNothingTwice) {
  const char* s = std::getenv("NVR_AFF_SEME");
  const unsigned seme = s ? static_cast<unsigned>(std::stoul(s)) : std::random_device{}();
  std::mt19937 caso(seme);
  std::uniform_real_distribution<double> vita(1.0, 6.0), pausa(0.0, 2.0);
  double fermo_massimo = 0;
  for (int i = 0; i < (kProveLunghe ? 12 : 2); ++i) {
    SCOPED_TRACE("uccisione " + std::to_string(i) + ", NVR_AFF_SEME=" + std::to_string(seme));
    std::this_thread::sleep_for(duration<double>(vita(caso)));
    // A recorder may be between two lives (back-off): the kill waits for one to leave behind.
    std::vector<pid_t> rimasti;
    ASSERT_TRUE(attendi([&] { return !(rimasti = registratori_in(imp.archivio())).empty(); }, 90));
    const double ucciso = adesso();
    imp.uccidi();
    for (pid_t pid : rimasti) EXPECT_TRUE(testing::stato_processo(pid)) << pid;
    std::this_thread::sleep_for(duration<double>(pausa(caso)));
    ASSERT_TRUE(imp.avvia());
    fermo_massimo = std::max(fermo_massimo, adesso() - ucciso);
    for (pid_t pid : rimasti) EXPECT_TRUE(testing::attendi_sparito(pid, 30)) << pid;
  }
  // Recording off: the index drains the in-progress folders, so every segment the killed runs
  // left behind gets its row.
  const int prima = imp.righe_indicizzate();
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() >= prima + 1; }, 90));
  ASSERT_EQ(imp.programma().post("/api/nvr/config", {{"attivo", 0}}).status, 200);
  ASSERT_TRUE(attendi([&] { return imp.integrita(false).in_corso.empty(); }, 90));
  // The orphans record on while the program is down; a kill's hole is the down time plus the
  // next start (orphan sweep, first pass, stream opened again): 30 s on a loaded machine.
  EXPECT_TRUE(imp.ferma_e_verifica(fermo_massimo + 30));
}

// Another program holding the database while the recorder records and the page asks it things:
// every connection waits up to 15 s for a lock, so indexing and requests are only delayed;
// nothing is lost, nothing indexed twice, no change saved by halves. The lock stops no
// recorder; only the segment-length changes restart it.
TEST_F(RegistrazioneTest, AnotherWriterHoldingTheDatabaseDelaysButLosesNothing) {
  constexpr double kBlocco = kProveLunghe ? 10 : 4;  // well inside the 15 s every connection waits
  // Run on the other program's connection, committed later: nobody reads or writes; readers go
  // and writers wait.
  const std::vector<std::vector<const char*>> blocchi = {
      {"BEGIN EXCLUSIVE"},
      {"CREATE TABLE IF NOT EXISTS altro (x)", "BEGIN", "INSERT INTO altro (x) VALUES (1)"}};
  auto& p = imp.programma();
  for (int g = 0; g < (kProveLunghe ? 5 : 1); ++g)
    for (const auto& blocco : blocchi) {
      SCOPED_TRACE(blocco.back());
      const int righe_prima = imp.righe_indicizzate();
      const std::int64_t giorni =
          p.get("/api/nvr/config").json["config"].value("giorni", 14) == 7 ? 9 : 7;
      sqlite3* altro = nullptr;
      ASSERT_EQ(sqlite3_open(imp.db_file().c_str(), &altro), SQLITE_OK);
      sqlite3_busy_timeout(altro, 15000);  // the program may be writing right now
      for (const char* sql : blocco)
        ASSERT_EQ(sqlite3_exec(altro, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql;
      const auto preso = std::chrono::steady_clock::now();
      std::vector<std::future<prova::RispostaHttp>> domande;
      for (std::string r : {"/api/nvr/stato", "/api/nvr/registrazioni?cam=1"})
        domande.push_back(std::async(std::launch::async, [&p, r] { return p.get(r); }));
      domande.push_back(std::async(std::launch::async, [&] {
        return p.post("/api/nvr/config", {{"giorni", giorni}});
      }));
      std::this_thread::sleep_until(preso + duration<double>(kBlocco));
      EXPECT_EQ(sqlite3_exec(altro, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
      sqlite3_close(altro);
      for (auto& d : domande) EXPECT_EQ(d.get().status, 200);
      EXPECT_EQ(p.get("/api/nvr/config").json["config"].value("giorni", 0), giorni);
      imp.sql("UPDATE nvr_config SET segmento_sec=3");  // a saved configuration brings back 60 s
      EXPECT_TRUE(attendi([&] { return imp.righe_indicizzate() > righe_prima; }, 60))
          << imp.tutto_il_log();
    }
  EXPECT_TRUE(imp.ferma_e_verifica(10));
  const std::string log = imp.tutto_il_log();
  EXPECT_EQ(log.find("locked"), std::string::npos) << log;
  EXPECT_EQ(log.find("giro del motore:"), std::string::npos) << log;
}

// A camera that stops answering: frozen (the connection stays open, no data flows), then gone
// and back on the same port. Each time the recorder gives up within its socket time-out, the
// status shows the error, and recording resumes when the camera returns.
TEST_F(RegistrazioneTest, FrozenThenKilledCameraRecorderGivesUpAndRecordingResumes) {
  constexpr double kTimeoutSocket = 5;  // -timeout 5000000 µs on the recorder's command line
  // The longest back-off a recorder can be waiting out after `fermo` s without the camera.
  auto attesa_massima = [](double fermo) {
    return std::min(5.0 * (std::floor(fermo / 5) + 1), 60.0);
  };
  auto camera = &imp.telecamera();
  std::unique_ptr<testing::CameraRtsp> nuova;
  double peggiore = 0;
  for (const bool uccisa : {false, true}) {
    SCOPED_TRACE(uccisa ? "uccisa" : "congelata");
    ASSERT_TRUE(attendi([&] { return !registratori_in(imp.archivio()).empty(); }, 60));
    const auto prima = registratori_in(imp.archivio());
    const double guasto = adesso();
    uccisa ? camera->ferma() : camera->sospendi();
    // A frozen camera costs two time-outs: the read, then one more on the way out.
    EXPECT_TRUE(attendi(
        [&] {
          auto ora = registratori_in(imp.archivio());
          return std::none_of(prima.begin(), prima.end(),
                              [&](pid_t p) { return std::count(ora.begin(), ora.end(), p); });
        },
        2 * kTimeoutSocket + 5))
        << "il registratore resta appeso";
    EXPECT_TRUE(attendi(
        [&] {
          auto c = imp.programma().get("/api/nvr/stato").json["telecamere"][0];
          return c.is_object() && !c.value("errore", "").empty() && !c.value("registrando", true);
        },
        20));
    std::this_thread::sleep_for(
        duration<double>(std::max(0.0, (kProveLunghe ? 40 : 8) - (adesso() - guasto))));
    const double ritorno = adesso();
    if (uccisa) {
      std::string motivo;
      nuova = testing::CameraRtsp::avvia(&motivo, 15, camera->porta());
      ASSERT_TRUE(nuova) << "la telecamera non riparte sulla stessa porta: " << motivo;
    } else {
      camera->riprendi();
    }
    const int al_ritorno = imp.righe_indicizzate();
    ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() >= al_ritorno + 2; },
                        attesa_massima(ritorno - guasto) + 60))
        << imp.tutto_il_log();
    // The segment cut by the stall was closed and indexed (once it aged in the in-progress
    // folder).
    const char* tagliato = "SELECT COUNT(*) FROM nvr_registrazioni WHERE inizio <= ? AND fine >= ?";
    EXPECT_TRUE(attendi(
        [&] {
          return scalare(imp.db_file(), tagliato, {guasto, guasto - 4}) > 0;
        },
        60));
    peggiore = std::max(peggiore, ritorno - guasto);
  }
  // The time away, the time-outs, the longest back-off and 15 s to open the stream again.
  EXPECT_TRUE(imp.ferma_e_verifica(peggiore + 2 * kTimeoutSocket + attesa_massima(peggiore) + 15));
}

}  // namespace
}  // namespace nvr::affidabilita

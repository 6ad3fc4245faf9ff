#include "web/api_storage.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "core/processo.h"
#include "core/config.h"
#include "core/db.h"
#include "core/stato.h"
#include "testing/ambiente.h"
#include "testing/cartella_ammessa.h"
#include "testing/processi.h"
#include "testing/stand_in.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaAmmessa;
using testing::CartellaTemporanea;
using testing::Controfigure;
using testing::HostDiProva;
using testing::VariabileDiProva;

const char* const kNonMontata =
    "L'unita' non e' montata: premi di nuovo \"Usa questa unita'\" o \"Collega\"";
const char* const kNonLeggibile = "Cartella non leggibile o non ammessa";

Json errore(const std::string& msg) { return Json{{"status", "error"}, {"message", msg}}; }

Richiesta richiesta(const std::string& metodo, const Json& corpo = Json::object()) {
  Richiesta r;
  r.metodo = metodo;
  r.corpo = corpo;
  return r;
}

Risposta sfoglia(const std::string& base) {
  Richiesta r = richiesta("GET");
  r.query["base"] = base;
  return api_cartelle(r);
}

bool attendi_fine_installazione() {
  for (int i = 0; i < 500; ++i) {
    if (!stato_installazione().in_corso) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

class ApiStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(srv.ok()) << "non posso creare una cartella sotto /srv";
    _init_db();
  }
  void TearDown() override { imposta_radice_montaggi_per_test(""); }

  HostDiProva h;
  CartellaAmmessa srv;
};

TEST_F(ApiStorageTest, Browsing) {
  CartellaTemporanea montaggi;
  const std::string disco = montaggi / "DISCO";
  fs::create_directories(disco + "/sotto");
  struct Caso {
    std::string radice_montaggi;  // "" for the real one
    std::string base;
    const char* messaggio;
  };
  const Caso casi[] = {
      {"", "/etc", kNonLeggibile},
      // The empty mount folder of a drive that is away is not an empty drive.
      {"", "/media/zuna_nvr//DISCO/x", kNonMontata},
      {montaggi.percorso(), disco + "/sotto", kNonMontata},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.base);
    imposta_radice_montaggi_per_test(c.radice_montaggi);
    Risposta r = sfoglia(c.base);
    EXPECT_EQ(r.status, 400);
    EXPECT_EQ(r.corpo, errore(c.messaggio));
  }
  imposta_radice_montaggi_per_test("");
  for (const char* nome : {"a", ".nascosta", "lost+found"}) fs::create_directories(srv / nome);
  EXPECT_EQ(sfoglia(srv.percorso()).corpo["cartelle"],
            (Json::array({Json{{"nome", "a"}, {"percorso", srv / "a"}}})));
}

// Where a new folder may go is storage/archivio_test.cc's table; here what the answer says.
TEST_F(ApiStorageTest, CreatingAFolderAnswersItsPathOrTheRefusal) {
  Risposta r = api_cartelle(richiesta("POST", {{"base", srv.percorso()}, {"nome", "nuova"}}));
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  EXPECT_EQ(r.corpo["percorso"], srv / "nuova");
  EXPECT_TRUE(fs::is_directory(srv / "nuova"));

  for (const Json& corpo : {Json{{"base", "/etc"}, {"nome", "x"}}, Json{{"base", 5}}}) {
    r = api_cartelle(richiesta("POST", corpo));
    EXPECT_EQ(r.status, 400);
    EXPECT_EQ(r.corpo, (Json{{"status", "error"},
                             {"message", "Cartella di partenza non valida"},
                             {"percorso", ""}}));
  }
}

TEST_F(ApiStorageTest, MountAndUnmountFailuresAreAnswered) {
  EXPECT_EQ(api_monta(richiesta("POST", {{"uuid", "NON-ESISTE"}})).corpo,
            errore("Unita' non trovata (staccata?)"));
  Risposta r = api_smonta(richiesta("POST", {{"mountpoint", Json::array()}}));
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(r.corpo, errore("Non e' un punto di montaggio"));
}

// The page never gets the saved share password, so a re-mount of the saved share sends none.
TEST_F(ApiStorageTest, RemountingTheSavedShareUsesTheSavedPassword) {
  CartellaTemporanea montaggi;
  imposta_radice_montaggi_per_test(montaggi.percorso());
  Config cfg;
  cfg.destinazione = {{"tipo", "rete"},   {"proto", "smb"},   {"server", "127.0.0.1"},
                      {"share", "video"}, {"utente", "anna"}, {"password", "segreta"}};
  _salva_config(cfg);
  const Json richiesta_base = {{"tipo", "rete"},   {"proto", "smb"},   {"server", "127.0.0.1"},
                               {"share", "video"}, {"utente", "anna"}, {"password", ""}};
  struct Caso {
    const char* chiave;  // what the page changes
    Json valore;
    const char* password;  // what reaches the credentials file
  };
  const Caso casi[] = {
      {"password", "", "segreta"}, {"share", "foto", ""}};
  for (const Caso& c : casi) {
    SCOPED_TRACE(std::string(c.chiave) + " = " + c.valore.dump());
    Controfigure cf;
    cf.mount_registratore();
    Json corpo = richiesta_base;
    corpo[c.chiave] = c.valore;
    Risposta r = api_monta(richiesta("POST", corpo));
    ASSERT_EQ(r.status, 200) << r.corpo.dump();
    EXPECT_EQ(cf.credenziali(1), std::string("username=anna\npassword=") + c.password + "\n");
    EXPECT_EQ(r.corpo.dump().find("segreta"), std::string::npos);
  }
  EXPECT_EQ(leggi_config().destinazione["password"], "segreta");  // mounting saves nothing
}

// The installer runs in the background, once, and its failure is reported by its last line.
TEST_F(ApiStorageTest, FfmpegInstallationStartsOnceAndReportsTheFailure) {
  Controfigure cf;
  VariabileDiProva path("PATH", cf.cartella());  // neither ffmpeg nor apt-get yet
  EXPECT_EQ(api_installa_ffmpeg(richiesta("POST")).corpo,
            errore("Installazione automatica non disponibile su questo sistema"));
  cf.programma("apt-get", "#!/bin/sh\nexit 1\n");
  cf.programma("bash", "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + cf / "bash.args" +
                           "'\nprintf 'W: rete\\nE: Impossibile trovare ffmpeg\\n' >&2\nexit 100\n");
  ::testing::internal::CaptureStdout();
  Risposta r = api_installa_ffmpeg(richiesta("POST"));
  EXPECT_EQ(r.corpo, (Json{{"status", "success"},
                           {"message", "Installazione avviata: ci vogliono un paio di minuti"}}));
  bool finita = attendi_fine_installazione();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] installazione ffmpeg terminata: presente=False Installazione non riuscita: E: "
            "Impossibile trovare ffmpeg\n");
  ASSERT_TRUE(finita);
  EXPECT_EQ(testing::leggi_file(cf / "bash.args"),
            "-c\napt-get update -y && apt-get install -y ffmpeg cifs-utils\n");
  EXPECT_EQ(stato_installazione().testo, "Installazione non riuscita: E: Impossibile trovare ffmpeg");

  // While one is marked as running, nothing starts.
  fs::remove(cf / "bash.args");
  imposta_installazione_per_test(Installazione{"Installazione in corso...", true});
  r = api_installa_ffmpeg(richiesta("POST"));
  EXPECT_EQ(r.corpo, (Json{{"status", "success"}, {"message", "Installazione gia' in corso"}}));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(fs::exists(cf / "bash.args"));
}

}  // namespace
}  // namespace nvr

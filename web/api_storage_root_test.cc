// Storage handlers against real mounts, and as a server user without root rights.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>

#include "core/config.h"
#include "core/db.h"
#include "core/processo.h"
#include "engine/registratori.h"
#include "core/stato.h"
#include "storage/comando.h"
#include "testing/ambiente.h"
#include "testing/cartella_ammessa.h"
#include "testing/loop.h"
#include "testing/sonda.h"
#include "testing/stand_in.h"
#include "web/api_config.h"
#include "web/api_storage.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaAmmessa;
using testing::CartellaTemporanea;
using testing::HostDiProva;

Json errore(const std::string& msg) { return Json{{"status", "error"}, {"message", msg}}; }

Richiesta richiesta(const std::string& metodo, const Json& corpo = Json::object()) {
  Richiesta r;
  r.metodo = metodo;
  r.corpo = corpo;
  return r;
}

// Started again as another user with NVR_SONDA_STORAGE set to "monta" or "installa", this binary
// only answers what that handler says there.
const bool kSonda = testing::registra_sonda("NVR_SONDA_STORAGE", [](const std::string& azione) {
  Risposta r = azione == "monta" ? api_monta(richiesta("POST", {{"uuid", "AB-12"}}))
                                 : api_installa_ffmpeg(richiesta("POST"));
  return std::to_string(r.status) + " " + r.corpo.dump();
});

class ApiStorageRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount e cambio di utente)";
    ASSERT_TRUE(srv.ok()) << "non posso creare una cartella sotto /srv";
    _init_db();
  }
  void TearDown() override { imposta_radice_montaggi_per_test(""); }

  HostDiProva h;
  CartellaAmmessa srv;
};

// The storage page's whole round with a real drive: mount, browse, choose a folder, unmount.
// Only lsblk is a stand-in (it cannot call a loop device removable).
TEST_F(ApiStorageRootTest, UsbDriveMountedBrowsedChosenAndUnmounted) {
  CartellaTemporanea montaggi;
  imposta_radice_montaggi_per_test(montaggi.percorso());
  std::unique_ptr<testing::ImmagineLoop> disco;
  try {
    disco = std::make_unique<testing::ImmagineLoop>("ext4", "CAMERE",
                                                    "5a1d0c3e-aaaa-4bbb-8ccc-0123456789ab");
  } catch (const std::exception& e) {
    GTEST_SKIP() << "immagini su loop device non disponibili: " << e.what();
  }
  testing::Controfigure cf;
  cf.programma("lsblk", testing::script_lsblk({disco.get()}, cf / "lsblk.args"));
  const std::string mp = montaggi / "CAMERE";
  const Json unita = {{"dev", disco->dev()}, {"uuid", disco->uuid()}, {"etichetta", "CAMERE"}};

  Risposta r = api_monta(richiesta("POST", {{"tipo", "usb"}, {"uuid", disco->uuid()}}));
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  EXPECT_EQ(disco->mountpoint(), mp);
  EXPECT_EQ(r.corpo["unita"], unita);

  Richiesta sfoglia = richiesta("GET");
  sfoglia.query["base"] = mp;
  EXPECT_EQ(api_cartelle(sfoglia).corpo["radice"], mp);
  const Json scelta = {{"cartella", mp + "/nvr"},
                       {"destinazione", {{"tipo", "usb"}, {"uuid", disco->uuid()}}}};
  r = api_config(richiesta("POST", scelta));
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  EXPECT_EQ(leggi_config().destinazione["dev"], disco->dev());

  // Unmounting stops the recorders first: none may keep a file open on the drive.
  Avvio sonno;
  sonno.argomenti = {"sleep", "300"};
  auto proc = avvia_processo(sonno);
  ASSERT_TRUE(proc.ok());
  Registratore finto;
  finto.proc = proc.valore();
  adotta_registratore(7, finto);
  ::testing::internal::CaptureStdout();
  r = api_smonta(richiesta("POST", {{"mountpoint", mp}}));
  std::string log = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(disco->mountpoint(), "");
  EXPECT_NE(log.find("registrazione telecamera 7 fermata (smontaggio)"), std::string::npos) << log;
  EXPECT_TRUE(registratori_in_corso().empty());

  // Gone: browsing and choosing it again say so.
  r = api_cartelle(sfoglia);
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(r.corpo["message"],
            "L'unita' non e' montata: premi di nuovo \"Usa questa unita'\" o \"Collega\"");
  EXPECT_EQ(api_config(richiesta("POST", scelta)).status, 400);
}

// Without root and without password-less sudo nothing privileged is even tried.
TEST_F(ApiStorageRootTest, WithoutRootRightsMountingAndInstallingAreRefused) {
  CartellaTemporanea bin;  // a PATH with apt-get and without sudo, lsblk or ffmpeg
  ::chmod(bin.percorso().c_str(), 0755);
  testing::scrivi_file(bin / "apt-get", "#!/bin/sh\nexit 1\n");
  ::chmod((bin / "apt-get").c_str(), 0755);
  const std::string perche =
      "il server gira come utente nobody (non root) e sudo non c'e': avvialo come root";
  for (const char* azione : {"monta", "installa"}) {
    SCOPED_TRACE(azione);
    std::string risposta = testing::sonda_come_nobody(
        {"PATH=" + bin.percorso(), std::string("NVR_SONDA_STORAGE=") + azione});
    std::string atteso =
        std::string(azione) == "monta" ? "Non posso montare: " : "Non posso installare: ";
    EXPECT_EQ(risposta, "400 " + errore(atteso + perche).dump());
  }
}

}  // namespace
}  // namespace nvr

// Storage handlers against real mounts, and as a server user without root rights.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "core/db.h"
#include "core/stato.h"
#include "storage/comando.h"
#include "testing/ambiente.h"
#include "testing/cartella_ammessa.h"
#include "testing/sonda.h"
#include "web/api_storage.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaAmmessa;
using testing::CartellaTemporanea;
using testing::HostDiProva;
using testing::TmpfsIn;

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

TEST_F(ApiStorageRootTest, BrowsingAMountedDriveNamesItsMountPoint) {
  imposta_radice_montaggi_per_test(srv / "montaggi");
  TmpfsIn disco(srv / "montaggi/DISCO");
  ASSERT_TRUE(disco.montato());
  fs::create_directories(srv / "montaggi/DISCO/nvr/cam_1");

  for (const std::string& base : {srv / "montaggi/DISCO", srv / "montaggi/DISCO/nvr"}) {
    SCOPED_TRACE(base);
    Richiesta r = richiesta("GET");
    r.query["base"] = base;
    Risposta a = api_cartelle(r);
    ASSERT_EQ(a.status, 200) << a.corpo.dump();
    EXPECT_EQ(a.corpo["radice"], srv / "montaggi/DISCO");
    EXPECT_EQ(a.corpo["cartelle"].size(), 1u);
    // The space is the drive's, not the system disk's: a 1 MB tmpfs.
    EXPECT_EQ(a.corpo["spazio"]["totale_gb"], 0.0);
  }
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

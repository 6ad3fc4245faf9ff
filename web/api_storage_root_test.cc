// Storage and configuration handlers as root: a real drive, and a folder the server user may
// not write.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>

#include "core/config.h"
#include "core/db.h"
#include "core/processo.h"
#include "core/stato.h"
#include "engine/registratori.h"
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

Richiesta richiesta(const std::string& metodo, const Json& corpo = Json::object()) {
  Richiesta r;
  r.metodo = metodo;
  r.corpo = corpo;
  return r;
}

// Started again as another user with NVR_SONDA_CONFIG set to a folder, this binary only answers
// what saving that folder gives there.
const bool kSonda = testing::registra_sonda("NVR_SONDA_CONFIG", [](const std::string& cartella) {
  HostDiProva h;
  _init_db();
  Risposta r = api_config(richiesta("POST", Json{{"cartella", cartella}}));
  return std::to_string(r.status) + " " + r.corpo.dump();
});

class ApiRootTest : public ::testing::Test {
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
TEST_F(ApiRootTest, UsbDriveMountedBrowsedChosenAndUnmounted) {
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
  auto proc = avvia_processo({{"sleep", "300"}});
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
  // Browsing or choosing the empty mount folder afterwards is refused: the unit tables of
  // api_storage_test.cc and api_config_test.cc, with a plain folder as the mount point.
}

TEST_F(ApiRootTest, ServerUserThatCannotWriteTheFolderIsNamed) {
  ::chmod(srv.percorso().c_str(), 0755);
  fs::create_directory(srv / "di_root");  // root's, 0755: nobody may enter but not write
  ::chmod((srv / "di_root").c_str(), 0755);
  fs::create_directory(srv / "aperta");
  ::chmod((srv / "aperta").c_str(), 0777);

  auto sonda = [](const std::string& cartella) {
    return testing::sonda_come_nobody(
        {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "NVR_SONDA_CONFIG=" + cartella});
  };
  const Json rifiuto = {{"status", "error"},
                        {"message",
                         "Cartella non scrivibile dall'utente nobody con cui gira il server: crea "
                         "una sottocartella o scegline un'altra"}};
  EXPECT_EQ(sonda(srv / "di_root"), "400 " + rifiuto.dump());
  std::string aperta = sonda(srv / "aperta");
  EXPECT_TRUE(aperta.starts_with("200 {\"status\":\"success\"")) << aperta;
}

}  // namespace
}  // namespace nvr

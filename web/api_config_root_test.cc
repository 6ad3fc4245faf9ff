// The folder rules of the configuration for a server user without rights.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "core/config.h"
#include "core/db.h"
#include "storage/comando.h"
#include "testing/ambiente.h"
#include "testing/cartella_ammessa.h"
#include "testing/sonda.h"
#include "web/api_config.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaAmmessa;
using testing::HostDiProva;

Risposta salva(const Json& corpo) {
  Richiesta r;
  r.metodo = "POST";
  r.corpo = corpo;
  return api_config(r);
}

Json errore(const std::string& msg) { return Json{{"status", "error"}, {"message", msg}}; }

std::string non_scrivibile(const std::string& utente) {
  return "Cartella non scrivibile dall'utente " + utente +
         " con cui gira il server: crea una sottocartella o scegline un'altra";
}

// Started again as another user with NVR_SONDA_CONFIG set to a folder, this binary only answers
// what saving that folder gives there.
const bool kSonda = testing::registra_sonda("NVR_SONDA_CONFIG", [](const std::string& cartella) {
  HostDiProva h;
  _init_db();
  Risposta r = salva(Json{{"cartella", cartella}});
  return std::to_string(r.status) + " " + r.corpo.dump();
});

class ApiConfigRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount e cambio di utente)";
    ASSERT_TRUE(srv.ok()) << "non posso creare una cartella sotto /srv";
    _init_db();
  }

  HostDiProva h;
  CartellaAmmessa srv;
};

TEST_F(ApiConfigRootTest, ServerUserThatCannotWriteTheFolderIsNamed) {
  ::chmod(srv.percorso().c_str(), 0755);
  fs::create_directory(srv / "di_root");  // root's, 0755: nobody may enter but not write
  ::chmod((srv / "di_root").c_str(), 0755);
  fs::create_directory(srv / "aperta");
  ::chmod((srv / "aperta").c_str(), 0777);

  auto sonda = [](const std::string& cartella) {
    return testing::sonda_come_nobody(
        {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "NVR_SONDA_CONFIG=" + cartella});
  };
  EXPECT_EQ(sonda(srv / "di_root"), "400 " + errore(non_scrivibile("nobody")).dump());
  std::string aperta = sonda(srv / "aperta");
  EXPECT_TRUE(aperta.starts_with("200 {\"status\":\"success\"")) << aperta;
}

}  // namespace
}  // namespace nvr

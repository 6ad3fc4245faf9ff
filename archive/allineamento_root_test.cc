// Reconciliation with a folder the server's user may not list.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "archive/allineamento.h"
#include "core/stato.h"
#include "storage/comando.h"
#include "testing/ambiente.h"
#include "testing/sonda.h"

namespace nvr {
namespace {

using testing::CartellaTemporanea;
using testing::scrivi_file;

// What _mancanti answers to an unprivileged server for these paths (one a line), one a line.
const bool kSonda = testing::registra_sonda("NVR_SONDA_MANCANTI", [](const std::string& elenco) {
  std::vector<std::string> percorsi;
  std::istringstream righe(elenco);
  for (std::string r; std::getline(righe, r);) percorsi.push_back(r);
  std::string fuori;
  for (const std::string& p : _mancanti(percorsi)) fuori += p + "\n";
  return fuori;
});

class AllineamentoRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount di tmpfs, altri utenti)";
  }
};

TEST_F(AllineamentoRootTest, FolderTheUserMayNotListMakesNoneMissing) {
  CartellaTemporanea t;
  ::chmod(t.percorso().c_str(), 0755);
  scrivi_file(t / "chiusa/1.mp4", "x");
  ::chmod((t / "chiusa").c_str(), 0700);  // root's: user nobody gets "permission denied"
  scrivi_file(t / "aperta/1.mp4", "x");
  ::chmod((t / "aperta").c_str(), 0755);
  std::string percorsi;
  for (const char* p :
       {"chiusa/1.mp4", "chiusa/2.mp4", "aperta/1.mp4", "aperta/2.mp4", "tolta/1.mp4"})
    percorsi += t / p + "\n";

  EXPECT_EQ(testing::sonda_come_nobody({"NVR_SONDA_MANCANTI=" + percorsi}),
            t / "aperta/2.mp4" + "\n" + t / "tolta/1.mp4" + "\n");
}

}  // namespace
}  // namespace nvr

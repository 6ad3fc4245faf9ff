// The two secrets the program holds, the network share's password and the administrator's, never
// leave it: not in an answer (body or header), not in its output, not in the recorders' logs, not
// in a file of the data folder but the database. The share password reaches mount only through a
// 0600 credentials file that is gone when the call returns, whether the mount worked or not.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "testing/processi.h"
#include "testing/stand_in.h"
#include "tests/reliability/impianto.h"
#include "tests/reliability/richiesta_grezza.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;

TEST(SegretiTest, PasswordsNeverLeak) {
  // Mount as a stand-in that keeps a copy of the credentials file and its mode: no SMB server
  // here. A temporary folder of the test's own holds the recorders' logs and credentials files.
  testing::Controfigure finte;
  finte.mount_registratore();
  testing::CartellaTemporanea tmp;
  testing::VariabileDiProva tmpdir("TMPDIR", tmp.percorso());
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  std::int64_t cam = 0;
  ASSERT_TRUE(imp.registra_fino_a("Ingresso", 1, &cam));
  const std::string condivisa = "Cond-" + std::to_string(std::random_device{}()) + "-Parola";
  const std::string admin = imp.password().back();
  const int porta = imp.programma().porta();
  const std::string cookie = "Cookie: " + accedi_grezzo(porta, admin) + "\r\n";
  auto chiama = [&](const std::string& metodo, const std::string& bersaglio, const Json& corpo) {
    auto r = invia_grezza(
        porta,
        testo_richiesta(metodo, bersaglio, cookie + "Content-Type: application/json\r\n",
                        corpo.is_null() ? "" : corpo.dump()),
        200);
    for (const auto& s : {condivisa, admin})
      EXPECT_EQ((r.testata + r.corpo).find(s), std::string::npos) << metodo << " " << bersaglio;
    return r.status;
  };
  // Each new mount call saw the password in a 0600 file that is gone now, never as an argument.
  std::size_t viste = 0;
  auto controlla_credenziali = [&] {
    auto chiamate = finte.chiamate_mount();
    ASSERT_GT(chiamate.size(), viste);
    for (; viste < chiamate.size(); ++viste) {
      const int n = static_cast<int>(viste) + 1;
      EXPECT_EQ(finte.modo_credenziali(n).value_or(""), "600");
      EXPECT_NE(finte.credenziali(n).value_or("").find("password=" + condivisa + "\n"),
                std::string::npos);
      for (const auto& a : chiamate[viste]) {
        EXPECT_EQ(a.find(condivisa), std::string::npos);
        if (auto i = a.find("credentials="); i != std::string::npos) {
          EXPECT_FALSE(fs::exists(a.substr(i + 12, a.find(',', i) - i - 12))) << a;
        }
      }
    }
  };
  const Json share = {{"tipo", "rete"},
                      {"proto", "smb"},
                      {"server", "nas"},
                      {"share", "video"},
                      {"utente", "OFFICE\\mario"}};
  Json con_password = share;
  con_password["password"] = condivisa;

  chiama("POST", "/api/nvr/storage/monta", con_password);  // let through, nothing mounted
  controlla_credenziali();
  finte.rispondi_mount(static_cast<int>(viste) + 1, 32, "mount error(13): Permission denied");
  EXPECT_EQ(chiama("POST", "/api/nvr/storage/monta", con_password), 400);
  controlla_credenziali();
  // Saved with the configuration, the password is read back by nobody; a mount without it uses
  // the saved one.
  ASSERT_EQ(chiama("POST", "/api/nvr/config", Json{{"destinazione", con_password}}), 200);
  for (const char* r :
       {"/api/nvr/config", "/api/nvr/stato", "/api/nvr/storage", "/api/nvr/archivio",
        "/api/nvr/riassunto", "/api/info", "/api/telecamere", "/api/stati"})
    EXPECT_EQ(chiama("GET", r, nullptr), 200) << r;
  chiama("POST", "/api/nvr/storage/monta", share);
  controlla_credenziali();
  ASSERT_EQ(chiama("POST", "/api/nvr/config", Json{{"destinazione", {{"tipo", "locale"}}}}), 200);
  imp.segmenti_di(3);
  std::error_code ec;
  fs::remove("/media/zuna_nvr/rete_nas_video", ec);  // the empty mount point the calls made
  const int righe = imp.righe_indicizzate();
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() > righe; }, 90)) << imp.tutto_il_log();
  ASSERT_EQ(imp.ferma(), 0);

  // The output, but for the one line that hands the new password to whoever started it.
  std::istringstream log(imp.tutto_il_log());
  for (std::string riga; std::getline(log, riga);)
    for (const auto& s : {condivisa, admin})
      if (!riga.starts_with("Password dell'amministratore: ")) {
        EXPECT_EQ(riga.find(s), std::string::npos) << riga;
      }
  // Every file of the data folder (the database keeps the password on purpose) and of the
  // temporary folder (the recorders' logs, where the credentials files lived).
  int log_ffmpeg = 0;
  for (const auto& cartella : {imp.dati(), tmp.percorso()})
    for (auto it = fs::recursive_directory_iterator(cartella, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (!it->is_regular_file() || it->path().filename().string().starts_with("nvr.db")) continue;
      log_ffmpeg += it->path().extension() == ".log";
      EXPECT_NE(it->path().extension(), ".cred") << it->path();
      std::stringstream testo;
      testo << std::ifstream(it->path(), std::ios::binary).rdbuf();
      for (const auto& s : {condivisa, admin})
        EXPECT_EQ(testo.str().find(s), std::string::npos) << it->path();
    }
  EXPECT_GE(log_ffmpeg, 1) << "nessun log di ffmpeg in " << tmp.percorso();
  auto esito = imp.integrita();
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
}

}  // namespace
}  // namespace nvr::affidabilita

// The two secrets the program holds, the network share's password and the administrator's
// password, never leave it: not in any answer (body or header), not in its output, not in the
// recorders' logs, not in any file of the data folder but the database. The share password goes
// to mount only through a credentials file that only its owner can read and that is gone when
// the call returns, whether the mount worked or not.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "core/db.h"
#include "core/processo.h"
#include "testing/stand_in.h"
#include "tests/reliability/impianto.h"
#include "tests/reliability/richiesta_grezza.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;
using prova::attendi;

double ora_epoch() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string contenuto(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Every answer of the test goes through here, so every body and header is searched.
class Sonda {
 public:
  Sonda(int porta, std::vector<std::string> segreti)
      : porta_(porta), segreti_(std::move(segreti)) {}

  RispostaGrezza chiama(const std::string& metodo, const std::string& bersaglio,
                        const std::string& cookie, const std::string& corpo = "") {
    std::string altre = cookie.empty() ? "" : "Cookie: " + cookie + "\r\n";
    if (!corpo.empty()) altre += "Content-Type: application/json\r\n";
    RispostaGrezza r = invia_grezza(porta_, testo_richiesta(metodo, bersaglio, altre, corpo), 200);
    ++risposte_;
    ++status_[r.status];
    for (const auto& s : segreti_) {
      EXPECT_EQ(r.testata.find(s), std::string::npos) << metodo << " " << bersaglio;
      EXPECT_EQ(r.corpo.find(s), std::string::npos) << metodo << " " << bersaglio;
    }
    return r;
  }
  int risposte() const { return risposte_; }
  std::string status() const {
    std::string t;
    for (const auto& [s, n] : status_) t += " " + std::to_string(s) + "x" + std::to_string(n);
    return t;
  }

 private:
  int porta_;
  std::vector<std::string> segreti_;
  int risposte_ = 0;
  std::map<int, int> status_;
};

// The credentials file a mount call was handed, from its options.
std::string file_credenziali(const std::vector<std::string>& argomenti) {
  for (const auto& a : argomenti)
    if (auto i = a.find("credentials="); i != std::string::npos) {
      std::string f = a.substr(i + 12);
      return f.substr(0, f.find(','));
    }
  return "";
}

// The files below `cartella` (other than `saltati`) that contain `segreto`.
std::vector<std::string> file_con(const std::string& cartella, const std::string& segreto,
                                  const std::vector<std::string>& saltati) {
  std::vector<std::string> trovati;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(cartella, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (!it->is_regular_file()) continue;
    const std::string nome = it->path().filename();
    bool salta = false;
    for (const auto& s : saltati) salta = salta || nome.rfind(s, 0) == 0;
    if (!salta && contenuto(it->path()).find(segreto) != std::string::npos)
      trovati.push_back(it->path());
  }
  return trovati;
}

// The program's output without the one line that hands the new password to whoever started it.
std::string log_senza_annuncio(const std::string& log) {
  std::istringstream in(log);
  std::string riga, resto;
  while (std::getline(in, riga))
    if (riga.rfind("Password dell'amministratore: ", 0) != 0) resto += riga + "\n";
  return resto;
}

TEST(SegretiTest, PasswordsNeverLeak) {
  if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
  // Mount as a stand-in that keeps a copy of the credentials file and its mode: this machine
  // has no SMB server. Its own temporary folder holds the recorders' logs and the credentials
  // files, so all of them can be searched.
  testing::Controfigure controfigure;
  controfigure.mount_registratore();
  Impianto imp;
  testing::CartellaTemporanea tmp;
  const char* tmp_prima = std::getenv("TMPDIR");
  const std::string tmp_salvato = tmp_prima ? tmp_prima : "";
  ::setenv("TMPDIR", tmp.percorso().c_str(), 1);
  struct Ripristino {
    std::string v;
    bool c_era;
    ~Ripristino() { c_era ? ::setenv("TMPDIR", v.c_str(), 1) : ::unsetenv("TMPDIR"); }
  } ripristino{tmp_salvato, tmp_prima != nullptr};

  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  std::int64_t cam = 0;
  ASSERT_TRUE(imp.registra_fino_a("Ingresso", 1, &cam));

  std::mt19937_64 rng(std::random_device{}());
  const std::string condivisa = "Cond-" + std::to_string(rng() % 1000000000) + "-Parola";
  const std::string admin = imp.password().back();
  const int porta = imp.programma().porta();
  Sonda sonda(porta, {condivisa, admin});
  const std::string cookie = accedi_grezzo(porta, admin);
  ASSERT_FALSE(cookie.empty());

  // Each mount call: the stand-in saw the password in a 0600 file that is gone now.
  int chiamate_viste = 0;
  auto controlla_credenziali = [&](const std::string& quando) {
    auto chiamate = controfigure.chiamate_mount();
    ASSERT_GT(chiamate.size(), static_cast<std::size_t>(chiamate_viste)) << quando;
    for (int n = chiamate_viste + 1; n <= static_cast<int>(chiamate.size()); ++n) {
      const std::string file = file_credenziali(chiamate[n - 1]);
      ASSERT_FALSE(file.empty()) << quando;
      EXPECT_EQ(controfigure.modo_credenziali(n).value_or(""), "600") << quando;
      EXPECT_NE(controfigure.credenziali(n).value_or("").find("password=" + condivisa + "\n"),
                std::string::npos)
          << quando;
      EXPECT_FALSE(fs::exists(file)) << quando << ": " << file;
      for (const auto& a : chiamate[n - 1]) EXPECT_EQ(a.find(condivisa), std::string::npos);
    }
    chiamate_viste = static_cast<int>(chiamate.size());
  };
  const Json share = {{"tipo", "rete"},
                      {"proto", "smb"},
                      {"server", "nas"},
                      {"share", "video"},
                      {"utente", "OFFICE\\mario"}};
  Json con_password = share;
  con_password["password"] = condivisa;

  // A mount the stand-in lets through: nothing is mounted, so the program gives up afterwards.
  sonda.chiama("POST", "/api/nvr/storage/monta", cookie, con_password.dump());
  controlla_credenziali("montaggio riuscito");
  // A refused password: the file goes all the same.
  controfigure.rispondi_mount(chiamate_viste + 1, 32, "mount error(13): Permission denied");
  auto rifiutato = sonda.chiama("POST", "/api/nvr/storage/monta", cookie, con_password.dump());
  EXPECT_EQ(rifiutato.status, 400) << rifiutato.corpo;
  controlla_credenziali("password rifiutata");

  // Saved with the configuration, the password is read back by nobody; a re-mount without it
  // uses the saved one. Recording pauses meanwhile (the archive folder is not on the share).
  const double pausa_da = ora_epoch();
  auto salva =
      sonda.chiama("POST", "/api/nvr/config", cookie, Json{{"destinazione", con_password}}.dump());
  ASSERT_EQ(salva.status, 200) << salva.corpo;
  for (const std::string r :
       {"/api/nvr/config", "/api/nvr/stato", "/api/nvr/storage", "/api/nvr/archivio",
        "/api/nvr/riassunto", "/api/info", "/api/telecamere", "/api/stati"})
    EXPECT_EQ(sonda.chiama("GET", r, cookie).status, 200) << r;
  sonda.chiama("POST", "/api/nvr/storage/monta", cookie, share.dump());
  controlla_credenziali("password salvata");
  auto torna = sonda.chiama("POST", "/api/nvr/config", cookie,
                            Json{{"destinazione", {{"tipo", "locale"}}}}.dump());
  ASSERT_EQ(torna.status, 200) << torna.corpo;
  imp.segmenti_di(3);
  const double pausa_a = ora_epoch();
  std::error_code ec;
  fs::remove("/media/zuna_nvr/rete_nas_video", ec);  // the empty mount point the calls made

  // Recording resumed on the local archive.
  const int righe_prima = imp.righe_indicizzate();
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() >= righe_prima + 1; }, 90))
      << imp.tutto_il_log();
  ASSERT_EQ(imp.ferma(), 0);

  // Output, recorders' logs, data folder (the database holds the password on purpose) and the
  // temporary folder where the credentials files lived.
  const std::string log = log_senza_annuncio(imp.tutto_il_log());
  EXPECT_EQ(log.find(condivisa), std::string::npos) << log;
  EXPECT_EQ(log.find(admin), std::string::npos) << log;
  int file_letti = 0;
  for (const auto& cartella : {imp.dati(), tmp.percorso()})
    for (const auto& s : {condivisa, admin}) {
      auto trovati = file_con(cartella, s, {"nvr.db"});
      EXPECT_TRUE(trovati.empty()) << "segreto in " << trovati[0];
    }
  for (auto it = fs::recursive_directory_iterator(tmp.percorso(), ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    const std::string nome = it->path().filename();
    EXPECT_FALSE(nome.rfind("zuna_nvr_", 0) == 0 && it->path().extension() == ".cred")
        << "credenziali rimaste: " << it->path();
    file_letti += it->path().extension() == ".log";
  }
  EXPECT_GE(file_letti, 1) << "nessun log di ffmpeg in " << tmp.percorso();

  auto esito = imp.integrita();
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  // The only gap is the time the share was the saved destination (nothing may be recorded
  // then), plus the recorder's restart: the next pass (3 s) and opening the stream.
  for (const auto& b : esito.buchi)
    EXPECT_LE(b.secondi(), (pausa_a - pausa_da) + 30) << esito.descrizione();
  std::printf(
      "[affidabilita] segreti: %d risposte esaminate (status:%s), %d montaggi con file di "
      "credenziali 0600 poi cancellato, log e cartella dati puliti; %d segmenti (%lld byte), "
      "pausa di registrazione %.0f s\n",
      sonda.risposte(), sonda.status().c_str(), chiamate_viste, esito.file,
      static_cast<long long>(esito.byte), pausa_a - pausa_da);
}

}  // namespace
}  // namespace nvr::affidabilita

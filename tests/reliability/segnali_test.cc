// SIGTERM in the middle of the long operations: a bulk deletion of thousands of segments, the
// indexing of a backlog, a network share mount that does not answer. Each time the program ends
// with status 0 within a service manager's stop time-out, and the archive stays consistent.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <future>
#include <thread>

#include "core/nomi.h"
#include "storage/montaggi.h"
#include "testing/processi.h"
#include "testing/stand_in.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;

constexpr double kTempoDiArresto = 40;  // a service manager's wait before it kills

std::string ora_locale(double ts, const char* formato) {
  const std::time_t t = static_cast<std::time_t>(ts);
  std::tm tm{};
  ::localtime_r(&t, &tm);
  char b[64];
  std::strftime(b, sizeof(b), formato, &tm);
  return b;
}

constexpr double kOgniBuco = 1e9;  // the rows made up here leave holes of any length

// Waits (polling every millisecond) until `fatto`, then SIGTERM: the status within the time-out.
std::optional<int> termina_appena(Impianto& imp, const std::function<bool()>& fatto) {
  const auto limite = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (!fatto() && std::chrono::steady_clock::now() < limite)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(fatto()) << imp.tutto_il_log();
  return imp.ferma(kTempoDiArresto);
}

// A real recording with one row, the program stopped, and a copy of its segment multiplied by
// hard links, 2 s apart and older than every file must age: first a backlog of finished files as
// after a long outage, several index runs' worth (300 files per camera and run), then months of a
// busy archive, thousands of files with their rows, deleted all at once.
TEST(SegnaliTest, SigtermDuringIndexingAndDuringBulkDeletion) {
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  ASSERT_TRUE(imp.avvia());
  ASSERT_TRUE(imp.registra(1));
  ASSERT_EQ(imp.ferma(), 0);
  const fs::path primo =
      come_testo(Connessione(imp.db_file()).righe("SELECT file FROM nvr_registrazioni")[0][0]);
  testing::CartellaTemporanea tmp;
  const std::string campione = tmp / "campione.mp4", cartella = primo.parent_path().parent_path();
  fs::copy_file(primo, campione);
  const int backlog = kProveLunghe ? 6000 : 400, n = kProveLunghe ? 60000 : 5000;
  const double base = adesso() - 2.0 * (backlog + n) - 600;  // the backlog, then the archive
  auto ora = [&](int i, const char* formato) { return ora_locale(base + 2.0 * i, formato); };

  // Recording off: the index still drains the backlog, and nothing else moves.
  imp.sql("UPDATE nvr_config SET attivo=0");
  fs::create_directories(cartella + "/in_corso");
  for (int i = 0; i < backlog; ++i)
    fs::create_hard_link(campione, cartella + "/in_corso/" + ora(i, "%Y%m%d_%H%M%S") + ".mp4");
  const int prima = imp.righe_indicizzate();
  ASSERT_TRUE(imp.avvia());
  EXPECT_EQ(termina_appena(imp, [&] { return imp.righe_indicizzate() > prima; }), 0);
  // Files move and rows are written in batches; the stop waits for the batch.
  EXPECT_TRUE(imp.integrita(false).coerente()) << imp.integrita(false).descrizione();
  ASSERT_TRUE(imp.avvia());
  ASSERT_TRUE(attendi([&] { return imp.integrita(false).in_corso.empty(); }, 120 + backlog / 20));
  EXPECT_TRUE(imp.ferma_e_verifica(kOgniBuco, "", false));
  EXPECT_GE(imp.righe_indicizzate(), prima + backlog);

  // Recording on again, as an administrator deletes: the start drops rows only while it runs.
  imp.sql("UPDATE nvr_config SET attivo=1");
  std::vector<std::vector<Valore>> righe;
  const auto byte = static_cast<std::int64_t>(fs::file_size(campione));
  for (int i = backlog; i < backlog + n; ++i) {
    const std::string file =
        cartella + "/" + ora(i, "%Y-%m-%d") + "/" + ora(i, "%H-%M-%S") + ".mp4";
    fs::create_directories(fs::path(file).parent_path());
    fs::create_hard_link(campione, file);
    righe.push_back(
        {imp.cam(), base + 2.0 * i, base + 2.0 * i + 2, file, byte, std::string("continua")});
  }
  {
    Connessione c(imp.db_file());
    c.esegui_molti(
        "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) "
        "VALUES (?,?,?,?,?,?)",
        righe);
    c.commit();
  }
  const std::string a_meta_strada = come_testo(righe[righe.size() / 2][3]);
  ASSERT_TRUE(imp.avvia());
  auto cancellazione = std::async(std::launch::async, [&] {
    return imp.programma().elimina("/api/nvr/registrazioni", {{"tutto", true}}).status;
  });
  EXPECT_EQ(termina_appena(imp, [&] { return !fs::exists(a_meta_strada); }), 0);
  cancellazione.wait();
  // Files go first, rows after: never a file without its row; the next start drops the rows
  // whose file went.
  EXPECT_TRUE(imp.integrita(false).senza_riga.empty()) << imp.integrita(false).descrizione();
  ASSERT_TRUE(imp.avvia());
  ASSERT_TRUE(attendi([&] { return imp.integrita(false).senza_file.empty(); }, 90));
  EXPECT_TRUE(imp.ferma_e_verifica(kOgniBuco, "", false));
}

TEST(SegnaliMontaggioTest, SigtermDuringHungShareMountLeavesNoPasswordNorMount) {
  testing::CartellaTemporanea temporanei;
  testing::VariabileDiProva tmpdir("TMPDIR", temporanei.percorso());
  testing::Controfigure finte;
  // A server that does not answer: mount hangs for longer than the stop may take.
  const std::string d = finte.cartella();
  finte.programma("mount", "#!/bin/sh\ntouch '" + d + "/iniziato'\nsleep 90\nexit 32\n");
  finte.programma("mount.cifs", "#!/bin/sh\nexit 1\n");
  auto credenziali = [&] {
    int n = 0;
    for (const auto& e : fs::directory_iterator(temporanei.percorso()))
      n += e.path().extension() == ".cred";
    return n;
  };
  Impianto imp;
  ASSERT_TRUE(imp.avvia());
  const auto prima = imp.programma().get("/api/nvr/stato").json;
  const Json rete = {{"tipo", "rete"},   {"proto", "smb"},    {"server", "nas-prova"},
                     {"share", "video"}, {"utente", "mario"}, {"password", "segreta"}};
  auto montaggio = std::async(std::launch::async, [&] {
    return imp.programma().post("/api/nvr/storage/monta", rete).status;
  });
  ASSERT_TRUE(attendi([&] { return fs::exists(d + "/iniziato"); }, 30)) << imp.tutto_il_log();
  EXPECT_EQ(credenziali(), 1);
  EXPECT_EQ(imp.ferma(kTempoDiArresto), 0) << imp.tutto_il_log();
  montaggio.wait();
  EXPECT_EQ(credenziali(), 0) << "la password resta su disco";
  const std::string punto =
      std::string(RADICE_MONTAGGI) + "/rete_" + _nome_sicuro("nas-prova_video");
  EXPECT_FALSE(_ismount(punto));
  ASSERT_TRUE(imp.avvia());
  const auto dopo = imp.programma().get("/api/nvr/stato").json;
  EXPECT_EQ(dopo.value("cartella", ""), prima.value("cartella", ""));
  EXPECT_EQ(dopo.value("problema", "x"), "");
  std::error_code ec;
  fs::remove(punto, ec);
}

}  // namespace
}  // namespace nvr::affidabilita

// SIGTERM in the middle of the long operations: a bulk deletion of thousands of segments, the
// indexing of a backlog of finished files, a network share mount that does not answer. Each time
// the program must end with status 0 within the stop time-out, and the next start must find the
// archive consistent.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <thread>

#include "core/db.h"
#include "core/nomi.h"
#include "core/processo.h"
#include "core/stato.h"
#include "storage/montaggi.h"
#include "testing/processi.h"
#include "testing/stand_in.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;
using prova::attendi;

// What a service manager waits after SIGTERM before it kills: the program must be gone by then.
constexpr double kTempoDiArresto = 40;

double adesso() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A real 2-second H.264 MP4, made by ffmpeg: the file every copy in the archive is a link to.
std::string spezzone_campione(const std::string& cartella) {
  const std::string file = cartella + "/campione.mp4";
  const std::string cmd =
      "ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc=size=160x120:rate=5 "
      "-t 2 -c:v libx264 -pix_fmt yuv420p -f mp4 '" +
      file + "' >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0 && riproducibile(file) ? file : "";
}

std::string formatta(double ts, const char* formato) {
  const std::time_t t = static_cast<std::time_t>(ts);
  std::tm tm{};
  ::localtime_r(&t, &tm);
  char b[64];
  std::strftime(b, sizeof(b), formato, &tm);
  return b;
}

// SIGTERM now; the exit status and how long the program took to end.
std::pair<std::optional<int>, double> termina(Impianto& imp) {
  const auto inizio = std::chrono::steady_clock::now();
  auto codice = imp.ferma(kTempoDiArresto);
  return {codice, std::chrono::duration<double>(std::chrono::steady_clock::now() - inizio).count()};
}

int mp4_sotto(const std::string& cartella) {
  int n = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(cartella, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
    if (it->path().extension() == ".mp4") ++n;
  return n;
}

// The camera folder of camera `id`, as the program named it: where its first row lives.
std::string cartella_della_camera(Impianto& imp, std::int64_t id) {
  Connessione c(imp.db_file());
  auto r = c.righe("SELECT file FROM nvr_registrazioni WHERE cam_id=? LIMIT 1", {id});
  if (r.empty()) return "";
  return fs::path(come_testo(r[0][0])).parent_path().parent_path();
}

// The deletion and indexing tests start from a real recording with one indexed row, and a
// sample segment of the same camera to multiply into a large archive or backlog.
class SegnaliInRegistrazioneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
    if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
    campione = spezzone_campione(tmp.percorso());
    ASSERT_FALSE(campione.empty()) << "ffmpeg non crea lo spezzone campione";
    ASSERT_TRUE(imp.registra_fino_a("Magazzino", 1, &id));
  }

  Impianto imp;
  testing::CartellaTemporanea tmp;
  std::string campione;
  std::int64_t id = 0;
};

TEST_F(SegnaliInRegistrazioneTest, SigtermDuringBulkDeletion) {
  std::string perche;
  ASSERT_EQ(imp.ferma(), 0);

  // Months of a busy archive in a few seconds: thousands of links to one real segment, each
  // with its row, 2 s apart and ending before the recording just made.
  const int n = kProveLunghe ? 60000 : 5000;
  const std::string cam = cartella_della_camera(imp, id);
  ASSERT_FALSE(cam.empty());
  std::vector<std::vector<Valore>> righe;
  const double base = adesso() - 2.0 * n - 600;
  for (int i = 0; i < n; ++i) {
    const double inizio = base + 2.0 * i;
    const std::string giorno = cam + "/" + formatta(inizio, "%Y-%m-%d");
    const std::string file = giorno + "/" + formatta(inizio, "%H-%M-%S") + ".mp4";
    fs::create_directories(giorno);
    fs::create_hard_link(campione, file);
    righe.push_back({id, inizio, inizio + 2, file,
                     static_cast<std::int64_t>(fs::file_size(campione)), std::string("continua")});
  }
  {
    Connessione c(imp.db_file());
    c.esegui_molti(
        "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) "
        "VALUES (?,?,?,?,?,?)",
        righe);
    c.commit();
  }
  // The signal goes when the links are half gone: rows come in the order they were written.
  const std::string a_meta_strada = come_testo(righe[righe.size() / 2][3]);
  const int righe_prima = imp.righe_indicizzate();

  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  ASSERT_TRUE(attendi([&] { return !registratori_in(imp.archivio()).empty(); }, 60));
  auto cancellazione = std::async(std::launch::async, [&] {
    return imp.programma().elimina("/api/nvr/registrazioni", {{"tutto", true}}).status;
  });
  // Polled every millisecond, so the signal lands while the other links are still going.
  const auto limite = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (fs::exists(a_meta_strada) && std::chrono::steady_clock::now() < limite)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_FALSE(fs::exists(a_meta_strada)) << imp.tutto_il_log();
  auto [codice, durata] = termina(imp);
  ASSERT_EQ(codice, 0) << imp.tutto_il_log();
  EXPECT_LT(durata, kTempoDiArresto);
  cancellazione.wait();
  EXPECT_TRUE(registratori_in(imp.archivio()).empty());
  const int file_rimasti = mp4_sotto(cam), righe_rimaste = imp.righe_indicizzate();
  const bool a_meta = file_rimasti > 0 && righe_rimaste > 0;

  // Files go first, rows after: an interrupted deletion leaves rows without files, and the
  // reconciliation at the next start drops them. Never a file without its row.
  auto dopo = imp.integrita(false);
  EXPECT_TRUE(dopo.senza_riga.empty()) << dopo.descrizione();
  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() <= mp4_sotto(imp.archivio()); }, 90))
      << imp.tutto_il_log();
  ASSERT_EQ(imp.ferma(), 0);
  auto esito = imp.integrita(false);
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  EXPECT_TRUE(riproducibile(campione));
  std::printf(
      "[affidabilita] SIGTERM in cancellazione: %d righe da cancellare, interrotta %s (%d file e "
      "%d righe rimasti), uscita %d in %.1f s, dopo il riavvio %d file e %d righe coerenti\n",
      righe_prima, a_meta ? "a meta'" : "a fine lavoro", file_rimasti, righe_rimaste, *codice,
      durata, esito.file, esito.righe);
}

TEST_F(SegnaliInRegistrazioneTest, SigtermDuringIndexing) {
  std::string perche;
  // Recording off: the index still drains the in-progress folder, and nothing else moves.
  ASSERT_EQ(imp.registra(false), 200);
  ASSERT_TRUE(attendi([&] { return registratori_in(imp.archivio()).empty(); }, 30));
  ASSERT_EQ(imp.ferma(), 0);

  // A backlog of finished files, as after a long outage of the program: several index runs'
  // worth (300 files per camera and run), older than the 15 s every file must age.
  const int n = kProveLunghe ? 6000 : 400;
  const std::string in_corso = cartella_della_camera(imp, id) + "/in_corso";
  fs::create_directories(in_corso);
  const int lasciati = mp4_sotto(in_corso);  // the last segments of the recording just stopped
  const double base = adesso() - 2.0 * n - 600;
  for (int i = 0; i < n; ++i)
    fs::create_hard_link(campione,
                         in_corso + "/" + formatta(base + 2.0 * i, "%Y%m%d_%H%M%S") + ".mp4");
  const int righe_prima = imp.righe_indicizzate();

  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  // Polled every 10 ms: the signal lands while the first index run is still moving files.
  const auto limite = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (imp.righe_indicizzate() <= righe_prima && std::chrono::steady_clock::now() < limite)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_GT(imp.righe_indicizzate(), righe_prima) << imp.tutto_il_log();
  auto [codice, durata] = termina(imp);
  ASSERT_EQ(codice, 0) << imp.tutto_il_log();
  EXPECT_LT(durata, kTempoDiArresto);
  const int indicizzati = imp.righe_indicizzate() - righe_prima;
  auto dopo = imp.integrita(false);
  // The index moves a file and writes its row in batches of 25: the stop waits for the pass,
  // so no moved file is left without its row.
  EXPECT_TRUE(dopo.senza_riga.empty()) << dopo.descrizione();
  EXPECT_TRUE(dopo.doppi.empty()) << dopo.descrizione();

  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  // One index run every 10 s or so, 300 files each: the backlog drains in n / 300 runs.
  ASSERT_TRUE(attendi([&] { return imp.integrita(false).in_corso.empty(); }, 120 + n / 300 * 15))
      << imp.tutto_il_log();
  ASSERT_EQ(imp.ferma(), 0);
  auto esito = imp.integrita(false);
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  EXPECT_GE(esito.righe, righe_prima + n) << esito.descrizione();
  EXPECT_LE(esito.righe, righe_prima + n + lasciati) << esito.descrizione();
  std::printf(
      "[affidabilita] SIGTERM in indicizzazione: %d file in attesa, %d indicizzati prima del "
      "segnale, uscita %d in %.1f s, dopo il riavvio %d file e %d righe coerenti\n",
      n, indicizzati, *codice, durata, esito.file, esito.righe);
}

TEST(SegnaliTest, SigtermDuringNetworkMount) {
  testing::CartellaTemporanea temporanei;
  testing::VariabileDiProva tmpdir("TMPDIR", temporanei.percorso());
  testing::Controfigure controfigure;
  // A server that does not answer: mount hangs until the test lets it go.
  const std::string d = controfigure.cartella();
  controfigure.programma("mount", "#!/bin/sh\ntouch '" + d + "/iniziato'\nn=0\nwhile [ ! -f '" + d +
                                      "/basta' ] && [ $n -lt 600 ]; do sleep 0.2; "
                                      "n=$((n+1)); done\necho 'mount error(110): timed out' >&2\n"
                                      "exit 32\n");
  controfigure.programma("mount.cifs", "#!/bin/sh\nexit 1\n");
  struct Libera {
    std::string d;
    ~Libera() { std::fclose(std::fopen((d + "/basta").c_str(), "w")); }
  } libera{d};

  Impianto imp;
  std::string perche;
  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  const auto stato_prima = imp.programma().get("/api/nvr/stato").json;

  auto montaggio = std::async(std::launch::async, [&] {
    return imp.programma()
        .post("/api/nvr/storage/monta", {{"tipo", "rete"},
                                         {"proto", "smb"},
                                         {"server", "nas-prova"},
                                         {"share", "video"},
                                         {"utente", "UFFICIO\\mario"},
                                         {"password", "segreta"}})
        .status;
  });
  ASSERT_TRUE(attendi([&] { return fs::exists(d + "/iniziato"); }, 30)) << imp.tutto_il_log();
  int credenziali_durante = 0;
  for (const auto& e : fs::directory_iterator(temporanei.percorso()))
    if (e.path().extension() == ".cred") ++credenziali_durante;
  EXPECT_EQ(credenziali_durante, 1);

  auto [codice, durata] = termina(imp);
  ASSERT_EQ(codice, 0) << imp.tutto_il_log();
  EXPECT_LT(durata, kTempoDiArresto);
  montaggio.wait();
  // The password must not stay on disk because the program was stopped mid-mount.
  std::vector<std::string> rimaste;
  for (const auto& e : fs::directory_iterator(temporanei.percorso()))
    if (e.path().extension() == ".cred") rimaste.push_back(e.path());
  EXPECT_TRUE(rimaste.empty()) << rimaste.size() << " file di credenziali rimasti, il primo "
                               << rimaste.front();
  const std::string punto =
      std::string(RADICE_MONTAGGI) + "/rete_" + _nome_sicuro("nas-prova_video");
  EXPECT_FALSE(_ismount(punto));

  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  const auto stato_dopo = imp.programma().get("/api/nvr/stato").json;
  EXPECT_EQ(stato_dopo.value("cartella", ""), stato_prima.value("cartella", ""));
  EXPECT_EQ(stato_dopo["destinazione"], stato_prima["destinazione"]);
  EXPECT_EQ(stato_dopo.value("problema", "x"), "");
  ASSERT_EQ(imp.ferma(), 0);
  auto esito = imp.integrita();
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  std::error_code ec;
  fs::remove(punto, ec);
  std::printf(
      "[affidabilita] SIGTERM in montaggio: mount appeso, uscita %d in %.1f s, %zu file di "
      "credenziali rimasti, punto di montaggio %s\n",
      *codice, durata, rimaste.size(), _ismount(punto) ? "montato" : "libero");
}

}  // namespace
}  // namespace nvr::affidabilita

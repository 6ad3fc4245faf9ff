// Malformed requests against every route of the standalone program while it records the real
// camera: the server must stay up and answer, must never serve a file that is not an indexed
// recording, never list or create a folder outside the permitted roots, and must leave the
// archive and the index as they were. The seed is printed; NVR_SEME replays a run.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "core/db.h"
#include "core/json.h"
#include "core/nomi.h"
#include "core/processo.h"
#include "tests/reliability/generatore_fuzz.h"
#include "tests/reliability/impianto.h"
#include "tests/reliability/richiesta_grezza.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;
using prova::attendi;

// A text field of an answer, "" when the answer is no object or the field no text.
std::string testo_campo(const Json& j, const char* chiave) {
  const Json& v = campo(j, chiave);
  return v.is_string() ? v.get<std::string>() : "";
}

struct Voce {
  std::string file;
  double inizio = 0, fine = 0;
};

std::map<std::int64_t, Voce> voci_indice(const std::string& db_file) {
  std::map<std::int64_t, Voce> voci;
  Connessione c(db_file);
  for (const auto& r : c.righe("SELECT id, file, inizio, fine FROM nvr_registrazioni"))
    voci[come_intero(r[0])] = {come_testo(r[1]), come_reale(r[2]), come_reale(r[3])};
  return voci;
}

std::string contenuto(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void scrivi(const std::string& file, const std::string& testo) {
  std::ofstream(file, std::ios::binary) << testo;
}

std::string reale(const std::string& p) {
  std::error_code ec;
  auto r = fs::weakly_canonical(std::string(p.c_str()), ec);
  return ec ? fs::path(p).lexically_normal().string() : r.string();
}

bool sotto(const std::string& p, const std::string& radice) {
  return p == radice || p.rfind(radice + "/", 0) == 0;
}

// The folder names the fuzzer asked for that exist now, below `cartella` (not deeper than
// `livelli`), skipping `escluse`.
std::vector<std::string> cartelle_marcate(const std::string& cartella, const std::string& marca,
                                          int livelli, const std::vector<std::string>& escluse) {
  std::vector<std::string> trovate;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(
           cartella, fs::directory_options::skip_permission_denied, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    const std::string p = it->path().string();
    if (std::find(escluse.begin(), escluse.end(), p) != escluse.end() ||
        it.depth() >= livelli - 1) {
      it.disable_recursion_pending();
      if (std::find(escluse.begin(), escluse.end(), p) != escluse.end()) continue;
    }
    if (it->path().filename().string().find(marca) != std::string::npos) trovate.push_back(p);
  }
  return trovate;
}

bool dentro_permesse(const std::string& p, const std::string& archivio) {
  const std::string r = reale(p);
  for (const std::string radice : {"/media", "/mnt", "/srv", "/home", "/Volumes"})
    if (sotto(r, radice)) return true;
  return sotto(r, reale(archivio));
}

TEST(FuzzTest, MalformedRequestsNeverCrashLeakOrLose) {
  if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
  const std::uint64_t seme = std::getenv("NVR_SEME")
                                 ? std::strtoull(std::getenv("NVR_SEME"), nullptr, 10)
                                 : static_cast<std::uint64_t>(std::random_device{}());
  std::printf("[affidabilita] fuzz: seme %llu (NVR_SEME=%llu per ripetere)\n",
              static_cast<unsigned long long>(seme), static_cast<unsigned long long>(seme));
  std::fflush(stdout);  // the seed must survive a crash of the test
  const int totale = kProveLunghe ? 10000 : 500;
  // Several connections at once, while the engine records and indexes: the server's threads
  // meet each other, and some requests hold their connection for seconds (a broken one until
  // the server's 5 s read time-out, a wrong password for its pause, a share mount until the
  // mount gives up).
  const int connessioni = kProveLunghe ? 8 : 4;
  const int per_lotto = kProveLunghe ? 400 : 100;

  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  std::string perche;
  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  const std::int64_t cam = imp.aggiungi_camera("Ingresso");
  ASSERT_NE(cam, 0);
  // A second camera whose address leads nowhere: the fuzzer's camera settings go to it.
  auto riserva = imp.programma().post("/api/telecamere",
                                      {{"nome", "Riserva"}, {"url", "rtsp://127.0.0.1:9/nulla"}});
  ASSERT_EQ(riserva.status, 200);
  ASSERT_EQ(imp.registra(true), 200);
  imp.segmenti_di(3);
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() >= 3; }, 120)) << imp.tutto_il_log();

  // The browse root: a folder under a permitted root, with a way out through a symbolic link.
  Bersagli b;
  b.porta = imp.programma().porta();
  b.cam = cam;
  b.riserva = riserva.json.value("id", std::int64_t{0});
  b.marca = "fz" + std::to_string(seme % 1000000);
  b.dati = imp.dati();
  b.archivio = imp.archivio();
  b.fuori = fs::path(imp.dati()).parent_path().string();
  b.sfoglia = "/srv/nvr-fuzz-" + std::to_string(::getpid());
  fs::create_directories(b.sfoglia + "/sotto");
  fs::create_directory_symlink(b.fuori, b.sfoglia + "/fuga");
  struct Pulizia {
    std::string s;
    ~Pulizia() { fs::remove_all(s); }
  } pulizia{b.sfoglia};
  const std::string segreto = "SEGRETO-" + std::to_string(seme) + "-non-servire";
  for (const auto& f : {b.fuori + "/segreto.txt", b.dati + "/segreto.txt",
                        b.archivio + "/segreto.txt", b.sfoglia + "/segreto.txt"})
    scrivi(f, segreto);
  b.cookie = accedi_grezzo(b.porta, imp.password().back());
  b.cookie_uscito = accedi_grezzo(b.porta, imp.password().back());
  ASSERT_FALSE(b.cookie.empty());
  ASSERT_EQ(invia_grezza(
                b.porta,
                testo_richiesta("POST", "/api/uscita", "Cookie: " + b.cookie_uscito + "\r\n"), 30)
                .status,
            200);
  // The outside folders a fuzzed folder creation could reach; each must stay free of them.
  const std::vector<std::string> fuori = {"/", "/etc", "/tmp", b.fuori};

  // A share mount makes its mount-point folder before it finds out that it cannot mount: the
  // fuzzer's shares leave empty folders there, removed at the end.
  std::set<std::string> montaggi_prima;
  std::error_code ec;
  for (const auto& v : fs::directory_iterator("/media/zuna_nvr", ec))
    montaggi_prima.insert(v.path());
  const auto prima = voci_indice(imp.db_file());
  Generatore gen(seme, b);
  std::map<int, int> conteggi;
  int inviate = 0, video_controllati = 0, cinquecento_permessi = 0;
  std::int64_t byte_video = 0;
  const auto inizio = std::chrono::steady_clock::now();
  for (int lotto = 0; inviate < totale; ++lotto) {
    {
      auto voci = voci_indice(imp.db_file());
      gen.rid_noti.clear();
      for (const auto& [id, v] : voci) gen.rid_noti.push_back(id);
    }
    // A batch is drawn in order (the seed replays it), sent over `connessioni` connections at
    // once, then checked in order.
    std::vector<Colpo> colpi;
    for (int i = 0; i < per_lotto && inviate + i < totale; ++i) colpi.push_back(gen.prossima());
    std::vector<RispostaGrezza> risposte(colpi.size());
    {
      std::atomic<std::size_t> prossimo{0};
      std::vector<std::thread> fili;
      for (int f = 0; f < connessioni; ++f)
        fili.emplace_back([&] {
          for (std::size_t k; (k = prossimo++) < colpi.size();)
            risposte[k] = invia_grezza(b.porta, colpi[k].testo, colpi[k].attesa);
        });
      for (auto& f : fili) f.join();
    }
    for (std::size_t i = 0; i < colpi.size(); ++i, ++inviate) {
      const Colpo& r = colpi[i];
      const RispostaGrezza& a = risposte[i];
      ++conteggi[a.status];
      const std::string traccia = r.rotta + " (richiesta " + std::to_string(inviate) + ", seme " +
                                  std::to_string(seme) + "): " + r.testo.substr(0, 300);
      ASSERT_FALSE(a.scaduta) << "nessuna risposta in " << r.attesa << " s: " << traccia;
      if (!r.http_rotto) {
        ASSERT_NE(a.status, 0) << "connessione chiusa senza risposta: " << traccia;
      }
      if (a.status == 500 && r.puo_500) {
        auto j = leggi_json(a.corpo).value_or(Json());
        EXPECT_NE(testo_campo(j, "message").find("non e' un"), std::string::npos) << a.corpo << "\n"
                                                                                  << traccia;
        ++cinquecento_permessi;
      } else {
        ASSERT_LT(a.status, 500) << a.corpo.substr(0, 300) << "\n" << traccia;
      }
      ASSERT_EQ(a.corpo.find(segreto), std::string::npos) << traccia;
      ASSERT_EQ(a.corpo.find("root:x:0:0"), std::string::npos) << traccia;
      ASSERT_EQ(a.corpo.find(imp.password().back()), std::string::npos) << traccia;
      if (r.video && (a.status == 200 || a.status == 206) && !a.corpo.empty()) {
        // Whatever the video route serves is an indexed recording, byte for byte.
        auto voci = voci_indice(imp.db_file());
        ASSERT_TRUE(voci.count(*r.video)) << traccia;
        const std::string file = contenuto(voci[*r.video].file);
        std::size_t da = 0;
        if (a.status == 206) {
          const std::string cr = a.intestazione("Content-Range");
          ASSERT_EQ(cr.rfind("bytes ", 0), 0u) << cr << "\n" << traccia;
          da = std::stoull(cr.substr(6));
        }
        ASSERT_EQ(file.compare(da, a.corpo.size(), a.corpo), 0) << traccia;
        ++video_controllati;
        byte_video += static_cast<std::int64_t>(a.corpo.size());
      }
      if (r.cartelle && a.status == 200) {
        auto j = leggi_json(a.corpo).value_or(Json());
        if (j.contains("base")) {
          EXPECT_TRUE(dentro_permesse(testo_campo(j, "base"), b.archivio)) << a.corpo << traccia;
        }
        // The entries are names inside the base; one may be a link that leads outside (shown by
        // name, as any folder), which the fuzzer's bases through "fuga" then try to enter.
        for (const auto& c : campo(j, "cartelle"))
          EXPECT_EQ(fs::path(testo_campo(c, "percorso")).parent_path(),
                    fs::path(testo_campo(j, "base")).lexically_normal())
              << c << traccia;
        if (j.contains("percorso")) {
          EXPECT_TRUE(dentro_permesse(testo_campo(j, "percorso"), b.archivio))
              << a.corpo << traccia;
        }
      }
      // A right password ends the growing pause of the wrong ones; its session goes again.
      if (r.rotta == "POST /api/accesso") {
        const std::string c = accedi_grezzo(b.porta, imp.password().back());
        invia_grezza(b.porta, testo_richiesta("POST", "/api/uscita", "Cookie: " + c + "\r\n"), 60);
      }
      // Cameras the fuzzer added to the host table become targets of its later edits.
      if (r.rotta == "POST /api/telecamere" && a.status == 200)
        if (auto j = leggi_json(a.corpo); j && j->contains("id"))
          gen.cam_ospiti.push_back(j->value("id", std::int64_t{0}));
    }
    if (kProveLunghe) {
      std::printf("[affidabilita] fuzz: %d/%d richieste in %.0f s\n", inviate, totale,
                  std::chrono::duration<double>(std::chrono::steady_clock::now() - inizio).count());
      std::fflush(stdout);
    }
    ASSERT_TRUE(imp.in_esecuzione()) << "il programma e' caduto al lotto " << lotto << "\n"
                                     << imp.tutto_il_log();
    auto vivo = invia_grezza(
        b.porta, testo_richiesta("GET", "/api/sessione", "Cookie: " + b.cookie + "\r\n"), 60);
    ASSERT_EQ(vivo.status, 200) << "lotto " << lotto;
    ASSERT_NE(vivo.corpo.find("true"), std::string::npos) << "sessione persa: " << vivo.corpo;
  }
  const double secondi_fuzz =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - inizio).count();

  // Nothing outside the permitted roots got a folder of the fuzzer's; inside them, the ones it
  // made are tidied away.
  for (const auto& f : fuori) {
    auto trovate = cartelle_marcate(f, b.marca, f == b.fuori ? 8 : 1, {b.archivio});
    EXPECT_TRUE(trovate.empty()) << "cartella creata fuori dalle radici: " << trovate[0];
  }
  for (const std::string r : {"/srv", "/mnt", "/media", "/home"})
    for (const auto& p : cartelle_marcate(r, b.marca, 1, {})) fs::remove_all(p);
  for (const auto& v : fs::directory_iterator("/media/zuna_nvr", ec))
    if (!montaggi_prima.count(v.path())) fs::remove(v.path(), ec);  // only when empty

  // Every row indexed before the fuzzer is still there, with its file.
  auto dopo = voci_indice(imp.db_file());
  for (const auto& [id, v] : prima) {
    EXPECT_TRUE(dopo.count(id)) << "riga " << id << " sparita: " << v.file;
    EXPECT_TRUE(fs::exists(v.file)) << v.file;
  }

  // Deletion, on purpose: only the recordings asked for go (half of them at most, so that the
  // others are seen to stay), however the id is written.
  std::mt19937_64 rng(seme);
  std::vector<std::int64_t> ids;
  for (const auto& [id, v] : dopo) ids.push_back(id);
  std::shuffle(ids.begin(), ids.end(), rng);
  std::set<std::int64_t> chieste(ids.begin(),
                                 ids.begin() + std::min<std::size_t>(3, ids.size() / 2));
  std::vector<Voce> eliminate;
  const std::int64_t oltre = ids.empty() ? 1 : *std::max_element(ids.begin(), ids.end()) + 1000;
  for (const std::string& rid :
       std::vector<std::string>{std::to_string(oltre), std::string("99999999999999999999999"),
                                std::string("-1"), std::string("abc")})
    EXPECT_LT(invia_grezza(b.porta,
                           testo_richiesta("DELETE", "/api/nvr/registrazione/" + rid,
                                           "Cookie: " + b.cookie + "\r\n"),
                           60)
                  .status,
              500)
        << rid;
  int n = 0;
  for (auto id : chieste) {
    std::string rid = std::to_string(id);
    if (n++ % 2) {  // every digit written as %3X
      rid.clear();
      for (char c : std::to_string(id)) rid += std::string("%3") + c;
    }
    auto a = invia_grezza(
        b.porta,
        testo_richiesta("DELETE", "/api/nvr/registrazione/" + rid, "Cookie: " + b.cookie + "\r\n"),
        60);
    EXPECT_TRUE(a.status == 200 || a.status == 404) << rid << " " << a.corpo;
    if (a.status == 200) eliminate.push_back(dopo[id]);
  }
  auto finale = voci_indice(imp.db_file());
  for (const auto& [id, v] : dopo) {
    const bool chiesta =
        chieste.count(id) && std::any_of(eliminate.begin(), eliminate.end(),
                                         [&](const Voce& e) { return e.file == v.file; });
    EXPECT_EQ(finale.count(id) == 0, chiesta) << "riga " << id;
    EXPECT_EQ(fs::exists(v.file), !chiesta) << v.file;
  }

  ASSERT_EQ(imp.ferma(), 0) << imp.tutto_il_log();
  auto esito = imp.integrita();
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  // Holes: the deleted recordings, and the recorder restarts the fuzzer's saved configurations
  // cause (a new segment length restarts ffmpeg at the next engine pass, at most 3 s later, and
  // ffmpeg then takes a few seconds to open the stream on a busy machine: 30 s is generous).
  for (const auto& buco : esito.buchi) {
    double spiegati = 0;
    for (const auto& e : eliminate)
      if (e.inizio >= buco.da - 1 && e.fine <= buco.a + 1) spiegati += e.fine - e.inizio;
    EXPECT_LE(buco.secondi() - spiegati, 30) << esito.descrizione();
  }
  std::string visti;
  for (const auto& [s, q] : conteggi) visti += " " + std::to_string(s) + "x" + std::to_string(q);
  std::printf(
      "[affidabilita] fuzz: %d richieste in %.0f s (seme %llu), status:%s; 500 per numeri non "
      "leggibili: %d; %d risposte video confrontate (%lld byte); %zu righe intatte, %zu "
      "cancellate su richiesta; %d segmenti nell'archivio (%lld byte)\n",
      inviate, secondi_fuzz, static_cast<unsigned long long>(seme), visti.c_str(),
      cinquecento_permessi, video_controllati, static_cast<long long>(byte_video), prima.size(),
      eliminate.size(), esito.file, static_cast<long long>(esito.byte));
}

}  // namespace
}  // namespace nvr::affidabilita

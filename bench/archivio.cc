// Archive scale: an index of 86,400 and one of 2,600,000 segments over ten cameras, each row
// with its (empty) file in the camera/day folders, served by the standalone program. Measures
// the latency of the listing endpoints through HTTP against the bare SQL of the same listing
// run here on the same file, then reconciliation and retention on the index with 1% of the
// files gone, called in this process through the library.
//
//   bench_archivio [--quick]      (--quick: the small index only, fewer requests)
//   bench_archivio --genera       (only makes the sets missing under /var/tmp/nvr-bench/)
//   bench_archivio --in-processo  (no program: builds the sums, then reconciliation and retention)
//
// A generated set is kept under /var/tmp/nvr-bench/ and used again while its parameters match.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "archive/allineamento.h"
#include "archive/posizione.h"
#include "archive/pulizia.h"
#include "archive/sommari.h"
#include "autonomo/programma_di_prova.h"
#include "bench/misure.h"
#include "bench/tabella.h"
#include "core/config.h"
#include "core/db.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "testing/ambiente.h"
#include "web/api_registrazioni.h"

namespace fs = std::filesystem;
using nvr::bench::quantile;
using nvr::bench::secondi_da;

namespace {

constexpr int kCamere = 10;
constexpr const char* kRadice = "/var/tmp/nvr-bench";
// The program and this process date the days alike, so that both use the same per-day sums.
constexpr const char* kFuso = "Europe/Rome";

struct Insieme {
  std::int64_t righe;  // all cameras together
  int segmento;        // seconds, back to back
  std::string cartella() const {
    return std::string(kRadice) + "/archivio-" + std::to_string(righe) + "-" +
           std::to_string(segmento);
  }
  std::string dati() const { return cartella() + "/dati"; }
  std::string db() const { return dati() + "/nvr.db"; }
  std::string archivio() const { return dati() + "/archivio"; }
  std::string firma() const {
    return "v1 righe=" + std::to_string(righe) + " segmento=" + std::to_string(segmento) +
           " camere=" + std::to_string(kCamere);
  }
  std::string segno() const { return cartella() + "/completo"; }
};

// The recorder attached in this process to the set's database (no routes, no engine).
struct Aggancio {
  nvr::testing::HostDiProva prova{nvr::testing::HostDiProva::Aggancia::kNo};
  explicit Aggancio(const std::string& db) {
    prova.host->DB_FILE = db;
    prova.imposta_zona(kFuso);
    nvr::A.imposta_se_assente(prova.host);
  }
};

void muori(const std::string& cosa) {
  std::fprintf(stderr, "bench_archivio: %s\n", cosa.c_str());
  std::exit(1);
}

void sql(sqlite3* s, const char* testo) {
  char* err = nullptr;
  if (sqlite3_exec(s, testo, nullptr, nullptr, &err) != SQLITE_OK)
    muori(std::string(testo) + ": " + (err ? err : "?"));
}

// Creates empty files `nomi` in `cartella` (made when missing), relative to one open folder.
void crea_file(const std::string& cartella, const std::vector<std::string>& nomi) {
  fs::create_directories(cartella);
  int dir = ::open(cartella.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) muori("cartella " + cartella);
  for (const std::string& n : nomi) {
    int fd = ::openat(dir, n.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) muori("file " + cartella + "/" + n);
    ::close(fd);
  }
  ::close(dir);
}

struct Segmento {
  std::int64_t cam;
  double inizio, fine;
  std::int64_t dimensione;
  std::string motivo, file;
};

// Segments of camera `cam` (1-based), back to back, ending before `termine`.
std::vector<Segmento> segmenti_di(const Insieme& ins, const nvr::Config& cfg,
                                  const std::vector<nvr::Camera>& cams, int cam, double termine) {
  const std::int64_t n = ins.righe / kCamere;
  // Cameras started a few seconds apart, as real recorders do; a segment crosses every midnight.
  const double primo = termine - static_cast<double>(n * ins.segmento) + 7.0 * cam;
  const std::string cart = nvr::_cartella_camera(cfg, cams[cam - 1], cams);
  std::vector<Segmento> v;
  v.reserve(static_cast<std::size_t>(n));
  std::uint32_t caso = 2463534242u + static_cast<std::uint32_t>(cam);
  for (std::int64_t i = 0; i < n; ++i) {
    caso ^= caso << 13;
    caso ^= caso >> 17;
    caso ^= caso << 5;
    Segmento s;
    s.cam = cam;
    s.inizio = primo + static_cast<double>(i * ins.segmento) + (caso % 100) / 1000.0;
    s.fine = s.inizio + ins.segmento - 0.2 - (caso % 50) / 100.0;
    s.dimensione = static_cast<std::int64_t>(ins.segmento) * (180000 + caso % 40000);
    s.motivo = i % 500 == 250 ? "evento" : "continua";
    auto [giorno, ora] = nvr::_giorno_di(s.inizio);
    s.file = cart + "/" + giorno + "/" + ora + ".mp4";
    v.push_back(std::move(s));
  }
  return v;
}

std::vector<nvr::Camera> camere_di_prova() {
  std::vector<nvr::Camera> cams;
  for (int c = 1; c <= kCamere; ++c) {
    nvr::Camera cam;
    cam.id = c;
    cam.nome = "Cam" + std::to_string(c);
    cam.url = "rtsp://127.0.0.1:8554/cam" + std::to_string(c);
    cams.push_back(cam);
  }
  return cams;
}

nvr::Config config_di(const Insieme& ins) {
  nvr::Config cfg;
  cfg.attivo = 0;  // no recorder: only the listings and the index runs are measured
  cfg.cartella = ins.archivio();
  cfg.segmento_sec = ins.segmento;
  cfg.giorni = 3650;         // nothing old enough for the age phase
  cfg.spazio_min_gb = 0.01;  // a floor the disk is well above: the space phase only measures
  return cfg;
}

// Inserts `segmenti` (with their ids when `con_id`) in one transaction on the bare C API.
void inserisci(sqlite3* s, const std::vector<Segmento>& segmenti,
               const std::vector<std::int64_t>* id = nullptr) {
  sqlite3_stmt* st = nullptr;
  const char* testo =
      id ? "INSERT INTO nvr_registrazioni (id, cam_id, inizio, fine, file, dimensione, motivo) "
           "VALUES (?,?,?,?,?,?,?)"
         : "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) "
           "VALUES (?,?,?,?,?,?)";
  if (sqlite3_prepare_v2(s, testo, -1, &st, nullptr) != SQLITE_OK) muori(sqlite3_errmsg(s));
  for (std::size_t i = 0; i < segmenti.size(); ++i) {
    const Segmento& g = segmenti[i];
    int k = 1;
    if (id) sqlite3_bind_int64(st, k++, (*id)[i]);
    sqlite3_bind_int64(st, k++, g.cam);
    sqlite3_bind_double(st, k++, g.inizio);
    sqlite3_bind_double(st, k++, g.fine);
    sqlite3_bind_text(st, k++, g.file.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(st, k++, g.dimensione);
    sqlite3_bind_text(st, k++, g.motivo.c_str(), -1, SQLITE_STATIC);
    if (sqlite3_step(st) != SQLITE_DONE) muori(sqlite3_errmsg(s));
    sqlite3_reset(st);
  }
  sqlite3_finalize(st);
}

// Builds the set from nothing: database with the recorder's schema, cameras, configuration,
// rows, events and files. Answers the seconds it took.
double genera(const Insieme& ins) {
  auto t0 = std::chrono::steady_clock::now();
  std::error_code ec;
  fs::remove_all(ins.cartella(), ec);
  fs::create_directories(ins.archivio());
  const std::vector<nvr::Camera> cams = camere_di_prova();
  const nvr::Config cfg = config_di(ins);
  {
    Aggancio a(ins.db());
    sqlite3* s = nullptr;
    sqlite3_open(ins.db().c_str(), &s);
    sql(s,
        "CREATE TABLE IF NOT EXISTS tapo_cameras (id INTEGER PRIMARY KEY, name TEXT, "
        "rtsp_url TEXT)");
    sqlite3_close(s);
    nvr::_init_db();
    nvr::_salva_config(cfg);
    nvr::Connessione c(ins.db());
    for (const nvr::Camera& cam : cams)
      c.esegui("INSERT INTO tapo_cameras (id, name, rtsp_url) VALUES (?,?,?)",
               {cam.id, cam.nome, cam.url});
    c.commit();
  }
  // Whole days up to the last midnight UTC before now, so that the set stays in the past.
  const double termine = std::floor(nvr::_ora() / 86400) * 86400;

  sqlite3* s = nullptr;
  sqlite3_open(ins.db().c_str(), &s);
  sql(s, "PRAGMA synchronous=OFF");
  sql(s, "BEGIN");
  for (int cam = 1; cam <= kCamere; ++cam) {
    std::vector<Segmento> v = segmenti_di(ins, cfg, cams, cam, termine);
    inserisci(s, v);
    // The files, one folder at a time, on two threads (the disk work overlaps the inserts).
    std::map<std::string, std::vector<std::string>> per_cartella;
    for (const Segmento& g : v) {
      fs::path p(g.file);
      per_cartella[p.parent_path().string()].push_back(p.filename().string());
    }
    std::vector<const std::pair<const std::string, std::vector<std::string>>*> lista;
    for (const auto& kv : per_cartella) lista.push_back(&kv);
    auto lavora = [&](std::size_t da) {
      for (std::size_t i = da; i < lista.size(); i += 2)
        crea_file(lista[i]->first, lista[i]->second);
    };
    std::thread altro(lavora, 1);
    lavora(0);
    altro.join();
    // A few trigger changes a day.
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(s, "INSERT INTO nvr_eventi (cam_id, ts, entity_id, stato) VALUES (?,?,?,?)",
                       -1, &st, nullptr);
    for (double t = v.front().inizio + 3600; t < v.back().fine; t += 8 * 3600) {
      for (const char* stato : {"on", "off"}) {
        sqlite3_bind_int64(st, 1, cam);
        sqlite3_bind_double(st, 2, std::string(stato) == "on" ? t : t + 95);
        sqlite3_bind_text(st, 3, "binary_sensor.movimento", -1, SQLITE_STATIC);
        sqlite3_bind_text(st, 4, stato, -1, SQLITE_STATIC);
        sqlite3_step(st);
        sqlite3_reset(st);
      }
    }
    sqlite3_finalize(st);
  }
  sql(s, "COMMIT");
  sqlite3_close(s);
  std::ofstream(ins.segno()) << ins.firma() << "\n";
  return secondi_da(t0);
}

bool pronto_in_cache(const Insieme& ins) {
  std::ifstream f(ins.segno());
  std::string riga;
  return std::getline(f, riga) && riga == ins.firma();
}

// ---- The bare SQL of each listing, on the C API, on the same file ----

class Nudo {
 public:
  explicit Nudo(const std::string& db) {
    sqlite3_open_v2(db.c_str(), &s_, SQLITE_OPEN_READONLY, nullptr);
  }
  ~Nudo() { sqlite3_close(s_); }
  // Steps every row of `testo` with `parametri` (doubles), reading each column; answers rows.
  std::int64_t passa(const char* testo, const std::vector<double>& parametri = {}) {
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(s_, testo, -1, &st, nullptr) != SQLITE_OK) muori(sqlite3_errmsg(s_));
    for (std::size_t i = 0; i < parametri.size(); ++i)
      sqlite3_bind_double(st, static_cast<int>(i + 1), parametri[i]);
    std::int64_t n = 0;
    volatile double somma = 0;
    while (sqlite3_step(st) == SQLITE_ROW) {
      ++n;
      for (int c = 0; c < sqlite3_column_count(st); ++c)
        somma = somma + (sqlite3_column_type(st, c) == SQLITE_TEXT
                             ? static_cast<double>(sqlite3_column_bytes(st, c))
                             : sqlite3_column_double(st, c));
    }
    sqlite3_finalize(st);
    return n;
  }

 private:
  sqlite3* s_ = nullptr;
};

struct Latenze {
  std::vector<double> nvr_ms, base_ms;
};

void stampa(const std::string& prova, const std::string& cosa, const Latenze& l,
            const std::string& obiettivo_p95) {
  nvr::bench::riga(prova, cosa + " p50", quantile(l.nvr_ms, 0.5), quantile(l.base_ms, 0.5), "ms");
  nvr::bench::riga(prova, cosa + " p95", quantile(l.nvr_ms, 0.95), quantile(l.base_ms, 0.95), "ms",
                   obiettivo_p95);
}

// Takes the per-day sums and their journal out of the set's database, as an index written before
// they existed: every run then measures the first start after the upgrade.
void come_prima_delle_somme(const Insieme& ins) {
  sqlite3* s = nullptr;
  sqlite3_open(ins.db().c_str(), &s);
  sqlite3_busy_timeout(s, 15000);
  for (const char* t :
       {"TRIGGER nvr_reg_variazioni_ins", "TRIGGER nvr_reg_variazioni_del",
        "TRIGGER nvr_reg_variazioni_upd", "TABLE nvr_reg_variazioni", "TABLE nvr_reg_giorni",
        "TABLE nvr_reg_cartelle", "TABLE nvr_reg_sommari"}) {
    const std::string tipo_e_nome = t;
    const std::size_t spazio = tipo_e_nome.find(' ');
    sql(s, ("DROP " + tipo_e_nome.substr(0, spazio) + " IF EXISTS" + tipo_e_nome.substr(spazio))
               .c_str());
  }
  sqlite3_close(s);
}

bool somme_pronte(const Insieme& ins) {
  Nudo nudo(ins.db());
  return nudo.passa("SELECT 1 FROM nvr_reg_sommari WHERE chiave='fuso'") > 0;
}

// The listings through HTTP, each against its bare SQL. Answers false when an answer is wrong.
bool misura_elenchi(const Insieme& ins, int volte, const std::string& prova) {
  come_prima_delle_somme(ins);
  auto t0 = std::chrono::steady_clock::now();
  auto p = nvr::autonomo::prova::Programma::su(ins.dati(), {"--nuova-password", "--fuso", kFuso});
  if (!p->pronto(600)) muori("il programma non parte: " + p->errori());
  const double avvio = secondi_da(t0);
  if (!p->accedi()) muori("accesso non riuscito");
  // Meanwhile the sums are built in the background: the overview answers the old way.
  auto t_prima = std::chrono::steady_clock::now();
  const int stato_prima = p->get("/api/nvr/archivio").status;
  const double archivio_prima = secondi_da(t_prima);
  while (!somme_pronte(ins) && secondi_da(t0) < 600)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const double somme = secondi_da(t0);
  nvr::bench::riga(prova, "api_archivio mentre le somme si preparano", archivio_prima * 1000,
                   nvr::bench::kNessuna, "ms");
  nvr::bench::riga(prova, "somme per giorno pronte (dall'avvio)", somme, nvr::bench::kNessuna, "s",
                   "<=10");
  // The engine's first pass (about ten seconds after start) indexes deeply: let it finish.
  std::this_thread::sleep_for(std::chrono::seconds(12));
  auto t1 = std::chrono::steady_clock::now();
  nvr::bench::attendi_quiete(p->pid(), 600);
  nvr::bench::riga(prova, "avvio fino a \"nvr in ascolto\"", avvio, nvr::bench::kNessuna, "s");
  nvr::bench::riga(prova, "primo giro del motore (dopo 12 s)", secondi_da(t1), nvr::bench::kNessuna,
                   "s");

  Nudo nudo(ins.db());
  bool giusto = true;
  auto controlla = [&](bool condizione, const std::string& cosa) {
    if (!condizione) {
      std::fprintf(stderr, "bench_archivio: risposta sbagliata: %s\n", cosa.c_str());
      giusto = false;
    }
  };
  controlla(stato_prima == 200, "api_archivio mentre le somme si preparano");

  // A day in the middle of camera 3's recordings.
  auto giorni = p->get("/api/nvr/giorni?cam=3").json["giorni"];
  controlla(giorni.is_array() && giorni.size() > 2, "giorni della camera 3");
  const std::string giorno = giorni.is_array() && !giorni.empty()
                                 ? giorni[giorni.size() / 2].get<std::string>()
                                 : "2000-01-01";
  auto intervallo = nvr::_intervallo_giorno(giorno);
  if (!intervallo) muori("giorno " + giorno);
  const auto [da, a] = *intervallo;

  Latenze l;
  std::size_t n_giorni = 0;
  l.nvr_ms = nvr::bench::cronometra_ms(volte, [&] {
    auto r = p->get("/api/nvr/giorni");
    controlla(r.status == 200, "api_giorni");
    n_giorni = r.json["giorni"].size();
  });
  l.base_ms = nvr::bench::cronometra_ms(
      volte, [&] { nudo.passa("SELECT inizio FROM nvr_registrazioni ORDER BY inizio"); });
  stampa(prova, "api_giorni", l, "<=200");

  std::int64_t righe_giorno = 0;
  std::size_t n_elencate = 0;
  l.nvr_ms = nvr::bench::cronometra_ms(volte, [&] {
    auto r = p->get("/api/nvr/registrazioni?cam=3&giorno=" + giorno);
    controlla(r.status == 200, "api_registrazioni");
    n_elencate = r.json["registrazioni"].size();
  });
  l.base_ms = nvr::bench::cronometra_ms(volte, [&] {
    righe_giorno = nudo.passa(
        "SELECT id, inizio, fine, dimensione, motivo, file FROM nvr_registrazioni WHERE cam_id=3 "
        "AND fine > ? AND inizio < ? ORDER BY inizio",
        {da, a});
    nudo.passa(
        "SELECT ts, entity_id, stato FROM nvr_eventi WHERE cam_id=3 AND ts >= ? AND ts < ? "
        "ORDER BY ts",
        {da, a});
  });
  controlla(static_cast<std::int64_t>(n_elencate) == righe_giorno,
            "api_registrazioni elenca " + std::to_string(n_elencate) + " segmenti, l'indice " +
                std::to_string(righe_giorno));
  stampa(prova, "api_registrazioni (un giorno, una camera)", l, "<=50");

  const int volte_archivio = std::max(5, volte / 2);
  std::int64_t n_archivio = -1;
  l.nvr_ms = nvr::bench::cronometra_ms(volte_archivio, [&] {
    auto r = p->get("/api/nvr/archivio");
    controlla(r.status == 200, "api_archivio");
    n_archivio = r.json["totale"]["n"].is_number() ? r.json["totale"]["n"].get<std::int64_t>() : -1;
    controlla(r.json["senza_file"] == 0, "api_archivio senza_file");
  });
  l.base_ms = nvr::bench::cronometra_ms(volte_archivio, [&] {
    nudo.passa(
        "SELECT cam_id, inizio, fine, dimensione FROM nvr_registrazioni ORDER BY cam_id, inizio");
  });
  controlla(n_archivio == ins.righe, "api_archivio totale.n " + std::to_string(n_archivio));
  stampa(prova, "api_archivio", l, "<=200");

  nvr::Json stato;
  l.nvr_ms = nvr::bench::cronometra_ms(volte, [&] {
    auto r = p->get("/api/nvr/stato");
    controlla(r.status == 200, "api_stato");
    stato = r.json;
  });
  l.base_ms = nvr::bench::cronometra_ms(volte, [&] {
    for (int c = 1; c <= kCamere; ++c)
      nudo.passa(("SELECT COUNT(*), COALESCE(SUM(dimensione),0), MAX(fine) FROM "
                  "nvr_registrazioni WHERE cam_id=" +
                  std::to_string(c))
                     .c_str());
  });
  std::int64_t file_stato = 0;
  for (const nvr::Json& t : stato["telecamere"]) file_stato += t["file"].get<std::int64_t>();
  controlla(file_stato == ins.righe, "api_stato file " + std::to_string(file_stato));
  stampa(prova, "api_stato", l, "<=50");
  controlla(n_giorni > 0, "api_giorni vuoto");
  return giusto;
}

// ---- Reconciliation and retention with 1% of the files gone ----

struct Tolte {
  std::vector<std::int64_t> id;
  std::vector<Segmento> segmenti;
};

// Removes the file of every hundredth row (and keeps what is needed to put it back).
Tolte togli_un_centesimo(const Insieme& ins) {
  Tolte t;
  nvr::Connessione c(ins.db());
  c.scorri(
      "SELECT id, cam_id, inizio, fine, dimensione, motivo, file FROM nvr_registrazioni WHERE "
      "id % 100 = 37 ORDER BY id",
      {}, [&](const nvr::Riga& r) {
        t.id.push_back(nvr::come_intero(r[0]));
        t.segmenti.push_back(Segmento{nvr::come_intero(r[1]), nvr::come_reale(r[2]),
                                      nvr::come_reale(r[3]), nvr::come_intero(r[4]),
                                      nvr::come_testo(r[5]), nvr::come_testo(r[6])});
      });
  for (const Segmento& g : t.segmenti) ::unlink(g.file.c_str());
  return t;
}

void rimetti(const Insieme& ins, const Tolte& t) {
  for (const Segmento& g : t.segmenti) {
    fs::path p(g.file);
    crea_file(p.parent_path().string(), {p.filename().string()});
  }
  sqlite3* s = nullptr;
  sqlite3_open(ins.db().c_str(), &s);
  sqlite3_busy_timeout(s, 15000);
  sql(s, "BEGIN");
  inserisci(s, t.segmenti, &t.id);
  sql(s, "COMMIT");
  sqlite3_close(s);
}

// Whether exactly the rows of `t` left the index.
bool solo_quelle_tolte(const Insieme& ins, const Tolte& t) {
  nvr::Connessione c(ins.db());
  std::int64_t resto = nvr::come_intero(c.righe("SELECT COUNT(*) FROM nvr_registrazioni")[0][0]);
  std::int64_t tolte_rimaste =
      nvr::come_intero(c.righe("SELECT COUNT(*) FROM nvr_registrazioni WHERE id % 100 = 37")[0][0]);
  return resto == ins.righe - static_cast<std::int64_t>(t.id.size()) && tolte_rimaste == 0;
}

// The bare statement for each id, in one transaction.
void cancella_per_id(sqlite3* s, const std::vector<std::int64_t>& ids) {
  sql(s, "BEGIN");
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(s, "DELETE FROM nvr_registrazioni WHERE id=?", -1, &st, nullptr);
  for (std::int64_t id : ids) {
    sqlite3_bind_int64(st, 1, id);
    if (sqlite3_step(st) != SQLITE_DONE) muori(std::string("DELETE: ") + sqlite3_errmsg(s));
    sqlite3_reset(st);
  }
  sqlite3_finalize(st);
  sql(s, "COMMIT");
}

// The floor of a deletion: the bare statement for the same ids, in one transaction, on a raw
// connection to the same database; the rows go back afterwards.
double cancella_nudo(const Insieme& ins, const Tolte& t) {
  sqlite3* s = nullptr;
  sqlite3_open(ins.db().c_str(), &s);
  sqlite3_busy_timeout(s, 15000);
  auto t0 = std::chrono::steady_clock::now();
  cancella_per_id(s, t.id);
  const double t_nudo = secondi_da(t0);
  sqlite3_close(s);
  rimetti(ins, t);
  return t_nudo;
}

// The plain way, as the statements read: every row's file, one listing per folder, and the rows
// whose file is not listed deleted by id in one transaction. Answers its time; the rows go back.
double allinea_nudo(const Insieme& ins) {
  Tolte t = togli_un_centesimo(ins);
  sqlite3* s = nullptr;
  sqlite3_open(ins.db().c_str(), &s);
  sqlite3_busy_timeout(s, 15000);
  auto t0 = std::chrono::steady_clock::now();
  std::map<std::string, std::vector<std::pair<std::int64_t, std::string>>> per_cartella;
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(s, "SELECT id, file FROM nvr_registrazioni", -1, &st, nullptr);
  while (sqlite3_step(st) == SQLITE_ROW) {
    fs::path f(reinterpret_cast<const char*>(sqlite3_column_text(st, 1)));
    per_cartella[f.parent_path().string()].emplace_back(sqlite3_column_int64(st, 0),
                                                        f.filename().string());
  }
  sqlite3_finalize(st);
  std::vector<std::int64_t> manca;
  for (const auto& [cartella, righe] : per_cartella) {
    std::set<std::string> nomi;
    std::error_code ec;
    for (const auto& voce : fs::directory_iterator(cartella, ec))
      nomi.insert(voce.path().filename().string());
    for (const auto& [id, nome] : righe)
      if (!nomi.count(nome)) manca.push_back(id);
  }
  cancella_per_id(s, manca);
  const double tempo = secondi_da(t0);
  sqlite3_close(s);
  if (manca.size() != t.id.size()) muori("il modo semplice non trova le stesse righe");
  rimetti(ins, t);
  return tempo;
}

bool misura_allinea_pulizia(const Insieme& ins, const std::string& prova) {
  Aggancio a(ins.db());
  const nvr::Config cfg = config_di(ins);
  bool giusto = true;
  ::unlink(ins.segno().c_str());  // until the files and rows are back

  // Each run first finds the rows alone (the same listing the run repeats), so that the rest of
  // its time is the deletion's: every page of the table and its indexes that holds one of the
  // rows is written, through the rollback journal.
  struct Tempi {
    double trovare = 0, totale = 0;
  };
  auto misura = [&](auto&& esegui) {
    Tolte t = togli_un_centesimo(ins);
    Tempi x;
    auto t0 = std::chrono::steady_clock::now();
    const std::size_t trovate = nvr::_righe_senza_file(cfg).size();
    x.trovare = secondi_da(t0);
    t0 = std::chrono::steady_clock::now();
    const std::size_t tolte = esegui();
    x.totale = secondi_da(t0);
    giusto = giusto && trovate == t.id.size() && tolte == t.id.size() && solo_quelle_tolte(ins, t);
    rimetti(ins, t);
    return std::make_pair(x, t);
  };
  const auto [allinea, tolte] =
      misura([&] { return static_cast<std::size_t>(nvr::_allinea(cfg)); });
  const auto [pulizia, tolte_pulizia] = misura([&] {
    nvr::_pulizia(cfg);
    nvr::Connessione c(ins.db());
    return static_cast<std::size_t>(
        ins.righe - nvr::come_intero(c.righe("SELECT COUNT(*) FROM nvr_registrazioni")[0][0]));
  });
  const double nudo = cancella_nudo(ins, tolte);
  const double semplice = allinea_nudo(ins);
  std::ofstream(ins.segno()) << ins.firma() << "\n";

  const std::string quante = ", " + std::to_string(tolte.id.size()) + " file mancanti";
  for (const auto& [nome, x] :
       {std::make_pair("_allinea", allinea), std::make_pair("_pulizia", pulizia)}) {
    nvr::bench::riga(prova, std::string(nome) + quante + " (base: modo semplice)", x.totale,
                     semplice, "s", "<=2");
    nvr::bench::riga(prova, std::string(nome) + ": trovare le righe", x.trovare,
                     nvr::bench::kNessuna, "s");
    nvr::bench::riga(prova, std::string(nome) + ": cancellare (base: DELETE nudo)",
                     x.totale - x.trovare, nudo, "s");
  }
  nvr::bench::riga(prova, "righe tolte = file mancanti", giusto ? 1 : 0, nvr::bench::kNessuna,
                   "si/no", "1");
  return giusto;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string opzione = argc > 1 ? argv[1] : "";
  const bool rapido = opzione == "--quick";
  std::vector<Insieme> insiemi = {{86400, 300}};
  if (!rapido) insiemi.push_back({2600000, 60});
  if (opzione == "--genera") {
    for (const Insieme& ins : insiemi)
      if (!pronto_in_cache(ins))
        nvr::bench::riga("archivio " + std::to_string(ins.righe / 1000) + "k",
                         "generazione (righe, file, eventi)", genera(ins), nvr::bench::kNessuna,
                         "s");
    return 0;
  }
  if (opzione == "--in-processo") {
    const Insieme& ins = insiemi.back();
    if (!pronto_in_cache(ins)) muori("manca l'insieme " + ins.cartella());
    const std::string prova = "archivio " + std::to_string(ins.righe / 1000) + "k";
    come_prima_delle_somme(ins);
    {
      Aggancio a(ins.db());
      nvr::_init_db();
      auto t0 = std::chrono::steady_clock::now();
      nvr::costruisci_sommari(nvr::_fuso());
      nvr::bench::riga(prova, "somme per giorno costruite (in processo)", secondi_da(t0),
                       nvr::bench::kNessuna, "s", "<=10");
    }
    return misura_allinea_pulizia(ins, prova) ? 0 : 1;
  }
  const int volte = rapido ? 10 : 50;

  bool giusto = true;
  for (const Insieme& ins : insiemi) {
    const std::string prova = "archivio " + std::to_string(ins.righe / 1000) + "k";
    if (!pronto_in_cache(ins)) {
      const double t = genera(ins);
      nvr::bench::riga(prova, "generazione (righe, file, eventi)", t, nvr::bench::kNessuna, "s");
    } else {
      nvr::bench::riga(prova, "generazione: insieme gia' pronto in " + std::string(kRadice), 0,
                       nvr::bench::kNessuna, "s");
    }
    giusto = misura_elenchi(ins, volte, prova) && giusto;
    // Reconciliation and retention on the large index (the small one with --quick).
    if (rapido || ins.righe > 1000000) giusto = misura_allinea_pulizia(ins, prova) && giusto;
  }
  return giusto ? 0 : 1;
}

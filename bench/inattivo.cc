// The idle engine at scale: the standalone program on an index of 2,600,000 segments (the set
// bench_archivio keeps under /var/tmp/nvr-bench/), its own CPU over a window with recording off,
// then with 8 cameras recording. "Above the recorders" is the program's own CPU: its ffmpeg
// children are separate processes, measured apart as the baseline. Before the program starts,
// the index jobs are timed in this process on the same index: the old index pass (every indexed
// path of every camera read at every run), the new one, the deep index and reconciliation.
//
//   bench_inattivo [--quick]   (--quick: the 86,400-segment set, 1-minute windows)
//
// The set is used through a copy of its database whose paths point into a folder of its own,
// where each day folder links to the set's: the recorders write only there.
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "archive/allineamento.h"
#include "archive/firme_cartelle.h"
#include "archive/indice.h"
#include "autonomo/programma_di_prova.h"
#include "bench/camera_in_loop.h"
#include "bench/misure.h"
#include "bench/tabella.h"
#include "bench/uso_processi.h"
#include "core/config.h"
#include "core/db.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "testing/ambiente.h"

namespace fs = std::filesystem;
using nvr::autonomo::prova::attendi;
using nvr::autonomo::prova::Programma;
using nvr::bench::kNessuna;
using nvr::bench::riga;
using nvr::bench::secondi_da;
using Orologio = std::chrono::steady_clock;

namespace {

constexpr int kRegistratori = 8;
constexpr const char* kRadice = "/var/tmp/nvr-bench";

void muori(const std::string& cosa) {
  std::fprintf(stderr, "bench_inattivo: %s\n", cosa.c_str());
  std::exit(1);
}

void sql(sqlite3* s, const std::string& testo) {
  char* err = nullptr;
  if (sqlite3_exec(s, testo.c_str(), nullptr, nullptr, &err) != SQLITE_OK)
    muori(testo + ": " + (err ? err : "?"));
}

std::string citato(const std::string& s) {
  std::string r = "'";
  for (char c : s) r += c == '\'' ? std::string("''") : std::string(1, c);
  return r + "'";
}

struct Copia {
  std::string origine;  // the set's folder
  std::string cartella;
  std::string dati() const { return cartella + "/dati"; }
  std::string db() const { return dati() + "/nvr.db"; }
  std::string archivio() const { return dati() + "/archivio"; }
  std::string segno() const { return cartella + "/completo"; }
};

// The database copied through SQLite's backup (a consistent copy even while the set is used),
// its paths moved to the copy's archive, one link per day folder of the set. Kept between runs.
void prepara(const Copia& c) {
  if (fs::exists(c.segno())) return;
  const auto t0 = Orologio::now();
  std::error_code ec;
  fs::remove_all(c.cartella, ec);
  fs::create_directories(c.archivio());
  sqlite3 *da = nullptr, *a = nullptr;
  sqlite3_open((c.origine + "/dati/nvr.db").c_str(), &da);
  sqlite3_open(c.db().c_str(), &a);
  sqlite3_backup* b = sqlite3_backup_init(a, "main", da, "main");
  if (!b) muori(sqlite3_errmsg(a));
  sqlite3_backup_step(b, -1);
  sqlite3_backup_finish(b);
  sqlite3_close(da);
  const std::string vecchio = c.origine + "/dati/archivio/";
  const std::string nuovo = c.archivio() + "/";
  sql(a, "PRAGMA synchronous=OFF");
  sql(a, "UPDATE nvr_registrazioni SET file = " + citato(nuovo) + " || substr(file, " +
             std::to_string(vecchio.size() + 1) + ") WHERE substr(file, 1, " +
             std::to_string(vecchio.size()) + ") = " + citato(vecchio));
  sql(a, "UPDATE nvr_config SET cartella = " + citato(c.archivio()) + ", attivo = 0");
  sqlite3_close(a);
  for (const auto& cam : fs::directory_iterator(vecchio)) {
    fs::create_directories(nuovo + cam.path().filename().string());
    for (const auto& giorno : fs::directory_iterator(cam.path()))
      fs::create_directory_symlink(giorno.path(), nuovo + cam.path().filename().string() + "/" +
                                                      giorno.path().filename().string());
  }
  std::ofstream(c.segno()) << "pronto\n";
  riga("inattivo", "copia dell'indice preparata", secondi_da(t0), kNessuna, "s");
}

struct Aggancio {
  nvr::testing::HostDiProva prova{nvr::testing::HostDiProva::Aggancia::kNo};
  explicit Aggancio(const std::string& db) {
    prova.host->DB_FILE = db;
    nvr::A.imposta_se_assente(prova.host);
  }
};

template <class F>
double cronometra(F f) {
  const auto t0 = Orologio::now();
  f();
  return secondi_da(t0);
}

// Where an idle engine's CPU went and goes: each job timed once in this process.
void misura_lavori(const Copia& c, const std::string& prova) {
  Aggancio g(c.db());
  nvr::Config cfg = nvr::leggi_config();
  std::vector<nvr::Camera> cams = nvr::_telecamere();
  const double vecchio = cronometra([&] {
    std::size_t n = 0;
    for (const nvr::Camera& cam : cams) {
      std::set<std::string> noti;
      nvr::Connessione k = nvr::_db();
      k.scorri("SELECT file FROM nvr_registrazioni WHERE cam_id=?", {cam.id},
               [&](const nvr::Riga& r) { noti.insert(nvr::come_testo(r[0])); });
      n += noti.size();
    }
  });
  const double nuovo = cronometra([&] { nvr::_indicizza(cfg, cams, false); });
  riga(prova, "indice ogni 10 s: un passaggio", 1000 * nuovo, 1000 * vecchio, "ms",
       "base: tutti i percorsi letti");
  const double profondo1 = cronometra([&] { nvr::_indicizza(cfg, cams, true); });
  const double profondo2 = cronometra([&] { nvr::_indicizza(cfg, cams, true); });
  riga(prova, "indice profondo, cartelle gia' viste", 1000 * profondo2, 1000 * profondo1, "ms",
       "base: il primo, tutto");
  std::optional<nvr::FirmeCartelle> firme;
  const double mirato = cronometra([&] {
    firme = nvr::firme_archivio(cfg.cartella, nvr::_ora());
    nvr::righe_senza_file_in({});
  });
  const double completo = cronometra([&] { nvr::_allinea(cfg); });
  riga(prova, "allineamento senza cambiamenti", 1000 * mirato, 1000 * completo, "ms",
       "base: _allinea completo; " + std::to_string(firme ? firme->size() : 0) + " cartelle");
}

// The program's own CPU and its recorders' over `finestra` seconds, in cores.
std::pair<double, double> cpu_per(pid_t pid, double finestra) {
  const double c0 = nvr::bench::cpu_secondi(pid), r0 = nvr::bench::cpu_figli_raccolti(pid);
  const auto f0 = nvr::bench::figli(pid, "ffmpeg");
  const auto t0 = Orologio::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(finestra));
  const auto f1 = nvr::bench::figli(pid, "ffmpeg");
  const double dt = secondi_da(t0);
  int cambiati = 0;
  const double reg =
      nvr::bench::cpu_fra(f0, f1, &cambiati) + nvr::bench::cpu_figli_raccolti(pid) - r0;
  return {(nvr::bench::cpu_secondi(pid) - c0) / dt, reg / dt};
}

}  // namespace

int main(int argc, char** argv) {
  const bool rapido = argc > 1 && std::string(argv[1]) == "--quick";
  const std::string insieme = rapido ? "archivio-86400-300" : "archivio-2600000-60";
  const double finestra = rapido ? 60 : 900, avvio = rapido ? 60 : 180;
  const std::string prova = rapido ? "inattivo 86k" : "inattivo 2.6M";
  Copia c{std::string(kRadice) + "/" + insieme, std::string(kRadice) + "/inattivo-" + insieme};
  if (!fs::exists(c.origine + "/completo"))
    muori("manca " + c.origine + ": lo genera bench_archivio" + (rapido ? " --quick" : ""));
  prepara(c);
  misura_lavori(c, prova);

  std::string motivo;
  auto camera = nvr::bench::avvia_camera_in_loop(&motivo);
  if (!camera) muori("telecamera di prova non disponibile: " + motivo);
  {
    nvr::Connessione k(c.db());
    k.esegui("UPDATE tapo_cameras SET rtsp_url=?", {camera->url()});
    k.esegui("UPDATE nvr_config SET attivo=0");
    k.commit();
  }
  auto p = Programma::su(c.dati(), {"--nuova-password"});
  if (!p->pronto(600) || !p->accedi()) muori("il programma non parte: " + p->errori());
  const pid_t pid = p->pid();
  // The first passes index deeply and reconcile in full: the window starts after them.
  std::this_thread::sleep_for(std::chrono::duration<double>(avvio));
  const auto [spento, nessuno] = cpu_per(pid, finestra);
  riga(prova, "CPU nvr, registrazione spenta", 100 * spento, kNessuna, "% core", "<= 1%");

  for (int id = 1; id <= kRegistratori; ++id)
    if (p->post("/api/nvr/camera", {{"id", id}, {"attiva", true}, {"modo", "sempre"}}).status !=
        200)
      muori("telecamera " + std::to_string(id) + " rifiutata");
  if (p->post("/api/nvr/config", {{"attivo", 1}}).status != 200) muori("registrazione rifiutata");
  if (!attendi([&] { return nvr::bench::figli(pid, "ffmpeg").size() == kRegistratori; }, 90))
    muori("i registratori non partono tutti");
  std::this_thread::sleep_for(std::chrono::duration<double>(avvio));
  const auto [acceso, registratori] = cpu_per(pid, finestra);
  riga(prova, "CPU nvr sopra i registratori, 8 in registrazione", 100 * acceso, 100 * registratori,
       "% core", "<= 1%; base: i registratori");
  (void)nessuno;
  p->post("/api/nvr/config", {{"attivo", 0}});
  attendi([&] { return nvr::bench::figli(pid, "ffmpeg").empty(); }, 30);
  return 0;
}

// Indexing throughput: finished segments spread over the in-progress folders of ten cameras,
// filed and indexed by the recorder's own index runs, against the bare work those runs stand
// for (the same renames and one-transaction inserts done directly).
//
//   bench_indicizzazione [--quick]
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "archive/indice.h"
#include "bench/misure.h"
#include "bench/tabella.h"
#include "core/db.h"
#include "core/tempo.h"
#include "testing/ambiente.h"

namespace fs = std::filesystem;
using nvr::testing::CartellaTemporanea;
using nvr::testing::HostDiProva;
using nvr::bench::secondi_da;

namespace {

constexpr int kCamere = 10;

std::string nome_in_corso(std::time_t t) {
  char buf[32];
  std::tm tm{};
  ::localtime_r(&t, &tm);
  std::strftime(buf, sizeof buf, "%Y%m%d_%H%M%S.mp4", &tm);
  return buf;
}

// `per_camera` finished segments, one every 2 s, two hours back, a minute old on disk.
std::vector<std::string> prepara(const std::string& radice, int per_camera) {
  std::string dati(4096, 'x');
  std::memcpy(dati.data() + 4, "moov", 4);
  const std::time_t inizio = std::time(nullptr) - 2 * 3600 - 2 * per_camera;
  std::vector<std::string> file;
  for (int c = 1; c <= kCamere; ++c) {
    const std::string cartella = radice + "/Cam" + std::to_string(c) + "/in_corso";
    fs::create_directories(cartella);
    for (int i = 0; i < per_camera; ++i) {
      const std::string p = cartella + "/" + nome_in_corso(inizio + 2 * i);
      int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 || ::write(fd, dati.data(), dati.size()) != static_cast<ssize_t>(dati.size())) {
        std::perror(p.c_str());
        std::exit(1);
      }
      timespec t{std::time(nullptr) - 60, 0};
      timespec tempi[2] = {t, t};
      ::futimens(fd, tempi);
      ::close(fd);
      file.push_back(p);
    }
  }
  return file;
}

std::int64_t conta_righe(const std::string& db) {
  nvr::Connessione c(db);
  return nvr::come_intero(c.righe("SELECT COUNT(*) FROM nvr_registrazioni").at(0).at(0));
}

// What the index runs amount to: every file renamed into its day folder and one row each, all
// rows in one transaction.
double base_diretta(const std::string& radice, const std::string& db,
                    const std::vector<std::string>& file) {
  auto t0 = std::chrono::steady_clock::now();
  sqlite3* s = nullptr;
  sqlite3_open(db.c_str(), &s);
  sqlite3_exec(s, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(s,
                     "INSERT OR IGNORE INTO nvr_registrazioni "
                     "(cam_id, inizio, fine, file, dimensione, motivo) VALUES (?,?,?,?,?,?)",
                     -1, &st, nullptr);
  for (const std::string& p : file) {
    fs::path vecchio(p);
    const std::string nome = vecchio.filename();
    std::tm tm{};
    ::strptime(nome.c_str(), "%Y%m%d_%H%M%S", &tm);
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    char giorno[16], ora[16];
    std::strftime(giorno, sizeof giorno, "%Y-%m-%d", &tm);
    std::strftime(ora, sizeof ora, "%H-%M-%S.mp4", &tm);
    const fs::path cartella = vecchio.parent_path().parent_path() / giorno;
    fs::create_directories(cartella);
    const fs::path nuovo = cartella / ora;
    fs::rename(vecchio, nuovo);
    struct stat info {};
    ::stat(nuovo.c_str(), &info);
    const std::string cam = vecchio.parent_path().parent_path().filename();
    sqlite3_bind_int64(st, 1, std::stoll(cam.substr(3)));
    sqlite3_bind_double(st, 2, static_cast<double>(t));
    sqlite3_bind_double(st, 3, static_cast<double>(info.st_mtime));
    sqlite3_bind_text(st, 4, nuovo.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(st, 5, info.st_size);
    sqlite3_bind_text(st, 6, "continua", -1, SQLITE_STATIC);
    sqlite3_step(st);
    sqlite3_reset(st);
  }
  sqlite3_finalize(st);
  sqlite3_exec(s, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(s);
  (void)radice;
  return secondi_da(t0);
}

}  // namespace

int main(int argc, char** argv) {
  const bool rapido = argc > 1 && std::string(argv[1]) == "--quick";
  const int per_camera = rapido ? 100 : 1000;

  double t_nvr = 0, t_base = 0;
  std::int64_t righe_nvr = 0, righe_base = 0;
  int giri = 0;
  {
    HostDiProva host;
    nvr::_init_db();
    CartellaTemporanea radice;
    prepara(radice.percorso(), per_camera);
    nvr::Config cfg;
    cfg.cartella = radice.percorso();
    std::vector<nvr::Camera> cams;
    for (int c = 1; c <= kCamere; ++c) {
      nvr::Camera cam;
      cam.id = c;
      cam.nome = "Cam" + std::to_string(c);
      cams.push_back(cam);
    }
    auto t0 = std::chrono::steady_clock::now();
    // A run files at most 300 segments per camera: repeat until every folder is empty, as the
    // engine does every ten seconds.
    for (;;) {
      std::vector<nvr::Camera> copia = cams;
      nvr::_indicizza(cfg, copia, false);
      ++giri;
      bool vuote = true;
      for (int c = 1; c <= kCamere && vuote; ++c)
        vuote = fs::is_empty(radice.percorso() + "/Cam" + std::to_string(c) + "/in_corso");
      if (vuote || giri > 100) break;
    }
    t_nvr = secondi_da(t0);
    righe_nvr = conta_righe(host.db_file);
  }
  {
    HostDiProva host;
    nvr::_init_db();
    CartellaTemporanea radice;
    auto file = prepara(radice.percorso(), per_camera);
    t_base = base_diretta(radice.percorso(), host.db_file, file);
    righe_base = conta_righe(host.db_file);
  }

  const int totale = per_camera * kCamere;
  const std::string n = "indicizzazione";
  nvr::bench::riga(n, std::to_string(totale) + " segmenti: secondi per archiviarli", t_nvr, t_base,
                   "s");
  nvr::bench::riga(n, "segmenti archiviati al secondo", totale / t_nvr, totale / t_base, "1/s");
  nvr::bench::riga(n, "righe nell'indice", static_cast<double>(righe_nvr),
                   static_cast<double>(righe_base), "righe", std::to_string(totale));
  nvr::bench::riga(n, "giri dell'indice", giri, nvr::bench::kNessuna, "giri");
  return righe_nvr == totale && righe_base == totale ? 0 : 1;
}

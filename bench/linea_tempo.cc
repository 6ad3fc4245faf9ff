// Playback as one timeline, on an hour of 1080p segments indexed as the recorder files them:
// - the first fragment of a stream started at a random moment, against a Range request of the
//   same number of bytes of the segment file from the same server;
// - the export of the whole hour, against `cat` of the same files (throughput) and a bare
//   `ffmpeg -f concat -c copy` of them (CPU);
// - in Chromium (bench/linea_tempo_pagina.mjs): the first painted frame after a click on the
//   timeline and the stalls over ten joins, against the page's old way (one file at a time).
//
//   bench_linea_tempo [--quick]      (--quick: 12 segments of 60 s instead of 300 s)
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "autonomo/programma_di_prova.h"
#include "bench/cliente_http.h"
#include "bench/misure.h"
#include "bench/tabella.h"
#include "core/config.h"
#include "core/db.h"
#include "core/stato.h"
#include "testing/ambiente.h"

namespace fs = std::filesystem;
using nvr::bench::quantile;
using nvr::bench::secondi_da;

namespace {

const std::string kProva = "linea_tempo";
constexpr double kInizio = 1768471200;  // 2026-01-15 10:00 UTC

void muori(const std::string& cosa) {
  std::fprintf(stderr, "bench_linea_tempo: %s\n", cosa.c_str());
  std::exit(1);
}

// What a finished child cost: wall-clock and CPU seconds (user + system, from wait4).
struct Costo {
  int codice = -1;
  double secondi = 0;
  double cpu = 0;
};

// Its standard output goes to `uscita`, or stays this program's own when `uscita` is empty.
Costo esegui(const std::vector<std::string>& argomenti, const std::string& uscita = "/dev/null") {
  std::vector<char*> argv;
  for (const std::string& a : argomenti) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  auto t0 = std::chrono::steady_clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (!uscita.empty()) {
      const int fd = ::open(uscita.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd >= 0) ::dup2(fd, 1);
    }
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  Costo c;
  int stato = 0;
  rusage uso{};
  if (pid < 0 || ::wait4(pid, &stato, 0, &uso) != pid) return c;
  c.secondi = secondi_da(t0);
  c.codice = WIFEXITED(stato) ? WEXITSTATUS(stato) : -1;
  auto s = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  c.cpu = s(uso.ru_utime) + s(uso.ru_stime);
  return c;
}

// One 1080p test-pattern recording cut into segments the way the recorder cuts them (key frame
// every 2 s, segment muxer, timestamps reset per segment), in `cartella` as 000.mp4, 001.mp4...
void registra(const std::string& cartella, int secondi, int segmento) {
  fs::create_directories(cartella);
  Costo c = esegui({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    "testsrc2=size=1920x1080:rate=25", "-t", std::to_string(secondi), "-c:v",
                    "libx264", "-preset", "ultrafast", "-g", "50", "-b:v", "4M", "-maxrate", "4M",
                    "-bufsize", "8M", "-pix_fmt", "yuv420p", "-an", "-f", "segment",
                    "-segment_time", std::to_string(segmento), "-segment_format", "mp4",
                    "-reset_timestamps", "1", cartella + "/%03d.mp4"});
  if (c.codice != 0) muori("ffmpeg non ha prodotto i segmenti di prova");
}

struct Segmento {
  std::int64_t id = 0;
  std::string file;
  double inizio = 0;
  std::uint64_t byte = 0;
};

// Files `sorgenti` as camera `cam`'s consecutive segments of `durata` seconds from `da`: copied
// into its day folder, given the mtime the recorder's finalisation leaves (the segment's end)
// and indexed.
std::vector<Segmento> archivia(nvr::Connessione& c, const std::string& archivio, int cam,
                               const std::string& nome, const std::vector<std::string>& sorgenti,
                               double da, int durata) {
  std::vector<Segmento> fatti;
  for (std::size_t i = 0; i < sorgenti.size(); ++i) {
    const double inizio = da + static_cast<double>(i) * durata;
    const std::time_t t = static_cast<std::time_t>(inizio);
    char ora[32];
    std::strftime(ora, sizeof ora, "%Y-%m-%d/%H-%M-%S.mp4", std::localtime(&t));
    const std::string file = archivio + "/" + nome + "/" + ora;
    fs::create_directories(fs::path(file).parent_path());
    fs::copy_file(sorgenti[i], file, fs::copy_options::overwrite_existing);
    const timespec tempi[2] = {{static_cast<std::time_t>(inizio + durata), 0},
                               {static_cast<std::time_t>(inizio + durata), 0}};
    ::utimensat(AT_FDCWD, file.c_str(), tempi, 0);
    const auto byte = static_cast<std::int64_t>(fs::file_size(file));
    c.esegui(
        "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) VALUES "
        "(?, ?, ?, ?, ?, 'continua')",
        {cam, inizio, inizio + durata, file, byte});
    fatti.push_back({nvr::come_intero(c.righe("SELECT MAX(id) FROM nvr_registrazioni")[0][0]),
                     file, inizio, static_cast<std::uint64_t>(byte)});
  }
  return fatti;
}

std::vector<std::string> file_in(const std::string& cartella) {
  std::vector<std::string> f;
  for (const auto& e : fs::directory_iterator(cartella)) f.push_back(e.path().string());
  std::sort(f.begin(), f.end());
  return f;
}

// Starts of playback at `volte` random moments of the hour: the stream's first whole fragment
// against the same number of bytes of the segment file by Range, one fresh connection each.
void primo_frammento(int porta, const std::string& sessione, const std::vector<Segmento>& ora,
                     int durata, int volte) {
  std::mt19937_64 caso(11);
  std::vector<double> flusso_ms, range_ms;
  for (int i = 0; i < volte; ++i) {
    const double da = kInizio + static_cast<double>(caso() % (ora.size() * durata * 1000)) / 1000;
    const std::string percorso = "/api/flusso?cam=1&da=" + std::to_string(da);
    nvr::bench::PrimoFrammento f = nvr::bench::primo_frammento(porta, percorso, sessione);
    if (f.status != 200 || f.byte == 0)
      muori("flusso da " + std::to_string(da) + ": stato " + std::to_string(f.status));
    flusso_ms.push_back(f.secondi * 1000);

    const Segmento& s = ora[static_cast<std::size_t>((da - kInizio) / durata)];
    const std::uint64_t dove = caso() % (s.byte - f.byte);
    nvr::bench::Ricevuta r = nvr::bench::chiedi(
        porta, "/api/nvr/video/" + std::to_string(s.id),
        sessione + "Range: bytes=" + std::to_string(dove) + "-" +
            std::to_string(dove + f.byte - 1) + "\r\n",
        false);
    if (r.status != 206) muori("Range del segmento: stato " + std::to_string(r.status));
    range_ms.push_back(r.secondi * 1000);
  }
  nvr::bench::riga(kProva, "primo frammento a caso (mediana)", quantile(flusso_ms, 0.5),
                   quantile(range_ms, 0.5), "ms", "<=150");
  nvr::bench::riga(kProva, "primo frammento a caso (p95)", quantile(flusso_ms, 0.95),
                   quantile(range_ms, 0.95), "ms", "<=150");
}

// Empties the kernel's page cache so that the next read comes from the disk, as an export of
// footage recorded hours ago does on a small box; false when not allowed (not root).
bool svuota_cache() {
  ::sync();
  std::ofstream f("/proc/sys/vm/drop_caches");
  f << "3\n";
  f.flush();
  return static_cast<bool>(f);
}

// One export of the span over HTTP: bytes and seconds, and the program's CPU seconds meanwhile.
struct Esportata {
  std::size_t byte = 0;
  double secondi = 0;
  double cpu = 0;
};

Esportata esporta(int porta, const std::string& percorso, const std::string& sessione, int pid,
                  std::uint64_t almeno) {
  const double cpu_prima = nvr::bench::cpu_di(pid);
  nvr::bench::Ricevuta r = nvr::bench::chiedi(porta, percorso, sessione, false);
  const double cpu = nvr::bench::cpu_di(pid) - cpu_prima;
  if (r.status != 200 || r.byte < almeno)
    muori("esportazione: stato " + std::to_string(r.status) + ", " + std::to_string(r.byte));
  return {r.byte, r.secondi, cpu};
}

// The whole hour exported, against `cat` of the files (both from the disk, then both from the
// page cache) and a bare ffmpeg concatenation writing its file in the same folder. As the page
// does it: the hash first (/api/esporta/impronta), then the file; and as a bare link, the hash
// then made while sending (another `da` in the same second: the same bytes, a new hash).
void esportazione(int porta, const std::string& sessione, const std::vector<Segmento>& ora,
                  int durata, int pid, const std::string& lavoro) {
  std::vector<std::string> cat = {"cat"};
  std::uint64_t byte = 0;
  for (const Segmento& s : ora) {
    cat.push_back(s.file);
    byte += s.byte;
  }
  const std::string a = "&a=" + std::to_string(kInizio + ora.size() * durata);
  const std::string pagina = "cam=1&da=" + std::to_string(kInizio) + a;
  const std::string link = "cam=1&da=" + std::to_string(kInizio + 0.5) + a;

  const bool da_disco = svuota_cache();
  const Costo cat_disco = esegui(cat);
  if (da_disco) svuota_cache();
  const Esportata impronta =
      esporta(porta, "/api/esporta/impronta?" + pagina, sessione, pid, 0);
  if (da_disco) svuota_cache();
  const Esportata dopo_impronta = esporta(porta, "/api/esporta?" + pagina, sessione, pid, byte / 2);
  if (da_disco) svuota_cache();
  const Esportata diretta = esporta(porta, "/api/esporta?" + link, sessione, pid, byte / 2);
  const Costo cat_cache = esegui(cat);
  const Esportata cache = esporta(porta, "/api/esporta?" + pagina, sessione, pid, byte / 2);

  const std::string elenco = lavoro + "/concat.txt";
  {
    std::ofstream f(elenco);
    for (const Segmento& s : ora) f << "file '" << s.file << "'\n";
  }
  const Costo ffmpeg = esegui({"ffmpeg", "-v", "error", "-y", "-f", "concat", "-safe", "0", "-i",
                               elenco, "-c", "copy", "-f", "mp4", lavoro + "/concat.mp4"});
  if (ffmpeg.codice != 0) muori("ffmpeg -f concat non riuscito");
  fs::remove(lavoro + "/concat.mp4");

  const std::string quanto = std::to_string(ora.size() * durata / 60) + " min";
  const std::string dove = da_disco ? "dal disco" : "(non root: dalla cache)";
  auto mb_s = [](const Esportata& e) { return e.byte / 1e6 / e.secondi; };
  const double cat_mb_s = byte / 1e6 / cat_disco.secondi;
  nvr::bench::riga(kProva, "file di " + quanto + " dopo l'impronta " + dove, mb_s(dopo_impronta),
                   cat_mb_s, "MB/s", ">=0.5x");
  nvr::bench::riga(kProva, "file di " + quanto + " con l'impronta " + dove, mb_s(diretta),
                   cat_mb_s, "MB/s");
  nvr::bench::riga(kProva, "impronta di " + quanto + " " + dove, byte / 1e6 / impronta.secondi,
                   cat_mb_s, "MB/s");
  nvr::bench::riga(kProva, "file di " + quanto + " dalla cache", mb_s(cache),
                   byte / 1e6 / cat_cache.secondi, "MB/s");
  nvr::bench::riga(kProva, "CPU: file con l'impronta vs ffmpeg concat", diretta.cpu, ffmpeg.cpu,
                   "s", "<=1x");
  nvr::bench::riga(kProva, "CPU: impronta + file vs ffmpeg concat",
                   impronta.cpu + dopo_impronta.cpu, ffmpeg.cpu, "s", "<=1x");
}

}  // namespace

int main(int argc, char** argv) {
  const bool rapido = argc > 1 && std::string(argv[1]) == "--quick";
  const int durata = rapido ? 60 : 300;

  nvr::testing::CartellaTemporanea cartella;
  const std::string dati = cartella / "dati";
  const std::string archivio = dati + "/archivio";
  fs::create_directories(dati);
  registra(cartella / "ora", durata, durata);
  registra(cartella / "giunte", 120, 10);
  const std::string unico = file_in(cartella / "ora").at(0);

  std::vector<Segmento> ora, giunte;
  {
    nvr::testing::HostDiProva prova{nvr::testing::HostDiProva::Aggancia::kNo};
    prova.host->DB_FILE = dati + "/nvr.db";
    nvr::A.imposta_se_assente(prova.host);
    nvr::Connessione c(prova.host->DB_FILE);
    c.esegui(
        "CREATE TABLE IF NOT EXISTS tapo_cameras (id INTEGER PRIMARY KEY, name TEXT, "
        "rtsp_url TEXT)");
    c.esegui("INSERT INTO tapo_cameras (id, name, rtsp_url) VALUES (1, 'Cortile', 'rtsp://x/1')");
    c.esegui("INSERT INTO tapo_cameras (id, name, rtsp_url) VALUES (2, 'Ingresso', 'rtsp://x/2')");
    c.commit();
    nvr::_init_db();
    nvr::Config cfg;
    cfg.cartella = archivio;
    nvr::_salva_config(cfg);
    ora = archivia(c, archivio, 1, "Cortile", std::vector<std::string>(12, unico), kInizio, durata);
    giunte = archivia(c, archivio, 2, "Ingresso", file_in(cartella / "giunte"), kInizio, 10);
    c.commit();
  }

  auto programma = nvr::autonomo::prova::Programma::su(dati, {"--nuova-password"});
  if (!programma->pronto(60)) muori("il programma non parte: " + programma->errori());
  if (!programma->accedi()) muori("accesso non riuscito");
  std::this_thread::sleep_for(std::chrono::seconds(12));  // the engine's first pass
  nvr::bench::attendi_quiete(programma->pid(), 60);
  std::string sessione;
  {
    auto r = programma->chiama("POST", "/api/accesso",
                               nvr::Json{{"password", programma->password()}}.dump());
    const std::string c = r.intestazione("Set-Cookie");
    sessione = "Cookie: " + c.substr(0, c.find(';')) + "\r\n";
  }

  primo_frammento(programma->porta(), sessione, ora, durata, rapido ? 20 : 50);
  esportazione(programma->porta(), sessione, ora, durata, programma->pid(), cartella.percorso());

  // The page, in Chromium: its own rows in the same table.
  const Costo pagina = esegui(
      {"node", std::string(NVR_SORGENTI) + "/bench/linea_tempo_pagina.mjs",
       "http://127.0.0.1:" + std::to_string(programma->porta()), programma->password(),
       std::to_string(kInizio), std::to_string(giunte.size()), std::to_string(durata)},
      "");
  return pagina.codice == 0 ? 0 : 1;
}

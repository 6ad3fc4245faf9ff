// Recording: what the standalone program costs beside its ffmpeg recorders, how soon a switched
// on camera has bytes on disk and a row in the index, and whether consecutive segments lose
// frames. Cameras are the looped 1080p30 file of bench/camera_in_loop.py; the baselines are bare
// ffmpeg processes with the recorder's own argument list, started by a shell.
//
//   bench_registrazione [--quick] [--solo carico|avvio|continuita]
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "autonomo/programma_di_prova.h"
#include "bench/camera_in_loop.h"
#include "bench/misure.h"
#include "bench/tabella.h"
#include "bench/uso_processi.h"
#include "core/db.h"
#include "core/processo.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "bench/video_di_prova.h"

namespace fs = std::filesystem;
using nvr::Json;
using nvr::autonomo::prova::attendi;
using nvr::autonomo::prova::Programma;
using nvr::bench::kNessuna;
using nvr::bench::riga;
using nvr::bench::secondi_da;
using nvr::testing::CameraRtsp;
using nvr::testing::CartellaTemporanea;
using Orologio = std::chrono::steady_clock;

namespace {

constexpr int kClientiPerCamera = 16;  // one looped-file camera serves this many recorders
constexpr double kFps = 30;
constexpr double kGopSecondi = 2;

void dormi(double secondi) { std::this_thread::sleep_for(std::chrono::duration<double>(secondi)); }

// Polls `fatto` every `passo` seconds for up to `secondi`: the time to first bytes is a second or
// two, so the poll must be finer than the 200 ms of the test helpers.
template <class F>
bool entro(double secondi, double passo, F fatto) {
  const auto t0 = Orologio::now();
  while (!fatto()) {
    if (secondi_da(t0) > secondi) return false;
    dormi(passo);
  }
  return true;
}

double mediana(std::vector<double> v) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  const std::size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

std::string cifra(double v) {
  char b[32];
  std::snprintf(b, sizeof b, "%.1f", v);
  return b;
}

// The cameras: enough looped-file cameras that none serves more than kClientiPerCamera.
struct Telecamere {
  std::vector<std::unique_ptr<CameraRtsp>> tutte;
  bool avvia(int clienti) {
    const int n = (clienti + kClientiPerCamera - 1) / kClientiPerCamera;
    while (static_cast<int>(tutte.size()) < n) {
      std::string motivo;
      auto c = nvr::bench::avvia_camera_in_loop(&motivo);
      if (!c) {
        std::fprintf(stderr, "telecamera di prova non disponibile: %s\n", motivo.c_str());
        return false;
      }
      tutte.push_back(std::move(c));
    }
    return true;
  }
  const std::string& url(int i) const { return tutte[i / kClientiPerCamera]->url(); }
  double cpu() const {
    double t = 0;
    for (const auto& c : tutte) t += nvr::bench::cpu_secondi(c->pid());
    return t;
  }
};

// The standalone program with its data in a temporary folder, logged in.
struct Nvr {
  CartellaTemporanea t;
  std::string dati = t / "dati";
  std::unique_ptr<Programma> p;
  std::vector<std::int64_t> ids;

  bool avvia(std::vector<std::string> altro = {}) {
    p = Programma::su(dati, altro);
    if (!p->pronto() || !p->accedi()) {
      std::fprintf(stderr, "nvr non parte: %s\n", p->errori().c_str());
      return false;
    }
    return true;
  }
  bool aggiungi(const std::string& nome, const std::string& url, bool attiva) {
    auto r = p->post("/api/telecamere", {{"nome", nome}, {"url", url}});
    if (r.status != 200) return false;
    ids.push_back(r.json["id"]);
    return imposta(ids.back(), attiva);
  }
  bool imposta(std::int64_t id, bool attiva) {
    return p->post("/api/nvr/camera", {{"id", id}, {"attiva", attiva}, {"modo", "sempre"}})
               .status == 200;
  }
  // The API clamps segments to a minute; these measurements want seconds.
  void segmenti_di(int secondi) {
    nvr::Connessione c(dati + "/nvr.db");
    c.esegui("UPDATE nvr_config SET segmento_sec=?", {std::int64_t{secondi}});
    c.commit();
  }
  std::string in_corso(const std::string& nome) const {
    return dati + "/archivio/" + nome + "/in_corso";
  }
};

// How many times the program said a recorder ended by itself. Every nvr that starts on this
// machine interrupts all recorders it finds (its own leftovers, it assumes), so on a machine
// shared with other test runs a measurement can be disturbed; it is then repeated.
int terminati(const Nvr& nvr) {
  const std::string testo = nvr.p->uscita();
  int n = 0;
  for (auto i = testo.find(": ffmpeg terminato"); i != std::string::npos;
       i = testo.find(": ffmpeg terminato", i + 1))
    ++n;
  return n;
}

// The program's lines about recorders that ended, to show what disturbed a measurement.
std::string righe_terminati(const Nvr& nvr) {
  std::string scelte;
  std::istringstream testo(nvr.p->uscita());
  for (std::string r; std::getline(testo, r);)
    if (r.find("ffmpeg terminato") != std::string::npos) scelte += "  " + r + "\n";
  return scelte;
}

constexpr int kTentativi = 3;

void disturbata(const std::string& cosa, int tentativo, const std::string& righe) {
  std::fprintf(stderr, "%s: un registratore e' finito da se' (tentativo %d di %d)\n%s",
               cosa.c_str(), tentativo, kTentativi, righe.c_str());
}

// Whether some .mp4 of `cartella` already holds bytes.
bool byte_in(const std::string& cartella) {
  std::error_code ec;
  for (const auto& v : fs::directory_iterator(cartella, ec))
    if (v.path().extension() == ".mp4" && v.file_size(ec) > 0) return true;
  return false;
}

std::string tra_apici(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// `n` bare recorders with the recorder's own arguments, started by one shell, each writing into
// its own folder below `radice` (not named like the recorder's folders, so that a starting nvr
// does not take them for its own leftovers).
std::shared_ptr<nvr::Processo> ffmpeg_nudi(const Telecamere& cams, int n, int segmento,
                                           const std::string& radice) {
  std::string script;
  for (int i = 0; i < n; ++i) {
    const std::string cartella = radice + "/nudo" + std::to_string(i);
    fs::create_directories(cartella);
    for (const std::string& a :
         nvr::argomenti_ffmpeg(cams.url(i), segmento, cartella, nvr::_ffmpeg_major()))
      script += tra_apici(a) + " ";
    script += "2>/dev/null & ";
  }
  script += "wait";
  auto p = nvr::avvia_processo({{"sh", "-c", script}});
  return p ? p.valore() : nullptr;
}

// --- overhead ----------------------------------------------------------------------------------

struct Finestra {
  double cpu_nvr = 0, cpu_registratori = 0, cpu_telecamere = 0;
  double pss_nvr = 0, pss_registratori = 0;  // MB, averaged over the window
  int cambiati = 0;                          // recorders that came or went in the window
  int disturbi = 0;                          // recorders that ended by themselves meanwhile
};

// CPU and Pss of `padre` (unless 0) and of its ffmpeg children over `secondi`.
Finestra misura(pid_t padre_nvr, pid_t padre_ffmpeg, const Telecamere& cams, double secondi) {
  Finestra f;
  const auto prima = nvr::bench::figli(padre_ffmpeg, "ffmpeg");
  const double raccolti0 = nvr::bench::cpu_figli_raccolti(padre_ffmpeg);
  const double nvr0 = padre_nvr ? nvr::bench::cpu_secondi(padre_nvr) : 0;
  const double cam0 = cams.cpu();
  const auto t0 = Orologio::now();
  int campioni = 0;
  while (secondi_da(t0) < secondi) {
    dormi(std::min(5.0, std::max(0.1, secondi - secondi_da(t0))));
    if (padre_nvr) f.pss_nvr += nvr::bench::pss_mb(padre_nvr);
    for (const auto& [pid, cpu] : nvr::bench::figli(padre_ffmpeg, "ffmpeg"))
      f.pss_registratori += nvr::bench::pss_mb(pid);
    ++campioni;
  }
  const double durata = secondi_da(t0);
  f.cpu_nvr = padre_nvr ? nvr::bench::cpu_secondi(padre_nvr) - nvr0 : 0;
  f.cpu_telecamere = (cams.cpu() - cam0) / durata;
  // Recorders that ended in the window (stopped by another nvr's sweep, say) count too.
  f.cpu_registratori =
      nvr::bench::cpu_fra(prima, nvr::bench::figli(padre_ffmpeg, "ffmpeg"), &f.cambiati) +
      nvr::bench::cpu_figli_raccolti(padre_ffmpeg) - raccolti0;
  f.pss_nvr /= campioni;
  f.pss_registratori /= campioni;
  return f;
}

bool carico(int n, double finestra, double finestra_base, Telecamere& cams) {
  if (!cams.avvia(n)) return false;
  Finestra mia, nuda;
  {
    Nvr nvr;
    if (!nvr.avvia({"--segmento-prova", "60"})) return false;
    for (int i = 0; i < n; ++i)
      if (!nvr.aggiungi("Cam" + std::to_string(i + 1), cams.url(i), true)) return false;
    if (nvr.p->post("/api/nvr/config", {{"attivo", 1}}).status != 200) return false;
    const pid_t pid = nvr.p->pid();
    for (int tentativo = 1; tentativo <= kTentativi; ++tentativo) {
      if (!attendi([&] { return static_cast<int>(nvr::bench::figli(pid, "ffmpeg").size()) == n; },
                   90)) {
        std::fprintf(stderr, "carico %d: i registratori non partono tutti\n%s\n", n,
                     nvr.p->uscita().c_str());
        return false;
      }
      dormi(10);  // past the recorders' connection and the first index runs
      const int prima = terminati(nvr);
      mia = misura(pid, pid, cams, finestra);
      mia.disturbi = terminati(nvr) - prima;
      if (mia.disturbi == 0) break;
      disturbata("carico " + std::to_string(n), tentativo, righe_terminati(nvr));
    }
  }
  {
    CartellaTemporanea t;
    auto sh = ffmpeg_nudi(cams, n, 60, t.percorso());
    if (!sh) return false;
    attendi([&] { return static_cast<int>(nvr::bench::figli(sh->pid(), "ffmpeg").size()) == n; },
            20);
    dormi(10);
    nuda = misura(0, sh->pid(), cams, finestra_base);
    sh->segnala_gruppo(SIGTERM);
    if (!sh->attendi(20)) sh->segnala_gruppo(SIGKILL);
    sh->attendi(5);
  }
  const double minuti = n * finestra / 60, minuti_base = n * finestra_base / 60;
  const std::string prova = "carico " + std::to_string(n) + " tel.";
  const bool grande = n >= 32;
  riga(prova, "CPU nvr / CPU registratori", 100 * mia.cpu_nvr / mia.cpu_registratori, kNessuna, "%",
       grande ? "<= 5% a 32 telecamere" : "");
  riga(prova, "CPU nvr per telecamera-minuto", mia.cpu_nvr / minuti, kNessuna, "s");
  const double tetto = 20 + 0.5 * n;
  riga(prova, "memoria nvr (Pss)", mia.pss_nvr, kNessuna, "MB", "<= " + cifra(tetto) + " MB");
  riga(prova, "CPU registratore per telecamera-minuto", mia.cpu_registratori / minuti,
       nuda.cpu_registratori / minuti_base, "s");
  riga(prova, "Pss registratore per telecamera", mia.pss_registratori / n,
       nuda.pss_registratori / n, "MB");
  riga(prova, "CPU telecamere di prova (core)", mia.cpu_telecamere, nuda.cpu_telecamere, "core",
       "< 1: non fanno da collo");
  if (mia.cambiati || nuda.cambiati || mia.disturbi)
    riga(prova, "registratori partiti/finiti nella finestra", mia.cambiati, nuda.cambiati, "proc.",
         "0 (" + std::to_string(mia.disturbi) + " fermati da fuori)");
  return true;
}

// --- time to first recording -------------------------------------------------------------------

struct Avvio {
  double byte = NAN, riga = NAN, byte_nudo = NAN;
  bool disturbato = false;
  std::string righe;  // the program's lines about the recorder ending
};

// One switch-on: recording already on globally, 5 s segments, the camera switched on through its
// POST (the configuration POST would clamp the segments back to a minute), which wakes the
// engine the same way.
Avvio un_avvio(const Telecamere& cams, int segmento) {
  Avvio a;
  {
    Nvr nvr;
    if (!nvr.avvia() || !nvr.aggiungi("Ingresso", cams.url(0), false)) return a;
    if (nvr.p->post("/api/nvr/config", {{"attivo", 1}}).status != 200) return a;
    nvr.segmenti_di(segmento);
    dormi(12);  // the engine's first pass (and its sweep of leftover recorders) is over
    const std::string cartella = nvr.in_corso("Ingresso");
    const auto t0 = Orologio::now();
    if (!nvr.imposta(nvr.ids[0], true)) return a;
    if (entro(30, 0.01, [&] { return byte_in(cartella); })) a.byte = secondi_da(t0);
    if (entro(90, 0.1, [&] {
          nvr::Connessione c(nvr.dati + "/nvr.db");
          return nvr::come_intero(c.righe("SELECT COUNT(*) FROM nvr_registrazioni").at(0).at(0)) >
                 0;
        }))
      a.riga = secondi_da(t0);
    a.disturbato = terminati(nvr) > 0;
    a.righe = righe_terminati(nvr);
  }
  CartellaTemporanea t;
  const auto t0 = Orologio::now();
  auto sh = ffmpeg_nudi(cams, 1, segmento, t.percorso());
  if (!sh) return a;
  if (entro(30, 0.01, [&] { return byte_in(t / "nudo0"); })) a.byte_nudo = secondi_da(t0);
  sh->segnala_gruppo(SIGTERM);
  if (!sh->attendi(20)) sh->segnala_gruppo(SIGKILL);
  sh->attendi(5);
  return a;
}

bool avvio(int ripetizioni, Telecamere& cams) {
  if (!cams.avvia(1)) return false;
  constexpr int kSegmento = 5;
  std::vector<double> byte, righe, nudi;
  int disturbate = 0;  // repetitions whose every attempt saw the recorder end
  for (int i = 0; i < ripetizioni; ++i) {
    Avvio a;
    for (int tentativo = 1; tentativo <= kTentativi; ++tentativo) {
      a = un_avvio(cams, kSegmento);
      if (!a.disturbato) break;
      disturbata("avvio " + std::to_string(i + 1), tentativo, a.righe);
    }
    if (std::isnan(a.byte) || std::isnan(a.riga) || std::isnan(a.byte_nudo)) {
      std::fprintf(stderr, "avvio %d: non misurato\n", i + 1);
      return false;
    }
    byte.push_back(a.byte);
    righe.push_back(a.riga);
    nudi.push_back(a.byte_nudo);
    disturbate += a.disturbato;
  }
  const std::string prova = "avvio x" + std::to_string(ripetizioni);
  riga(prova, "primi byte su disco (mediana)", mediana(byte), mediana(nudi), "s",
       "<= " + cifra(3 + mediana(nudi)) + " s");
  riga(prova, "prima riga nell'indice (mediana)", mediana(righe), kNessuna, "s",
       "<= " + cifra(kSegmento + 15 + 10) + " s");
  if (disturbate)
    riga(prova, "ripetizioni col registratore finito da se'", disturbate, kNessuna, "volte", "0");
  return true;
}

// --- continuity --------------------------------------------------------------------------------

struct Segmento {
  std::string file;
  double inizio = 0, fine = 0;
};

// Maps each recorded picture to its frame of the looped file and counts, along the whole
// recording, the frames missing between consecutive pictures (`persi`), those at the joins of
// two segments among them (`persi_giunti`) and pictures repeated (`ripetuti`).
struct Confronto {
  long registrati = 0, inviati = 0, persi = 0, persi_giunti = 0, ripetuti = 0, sconosciuti = 0;
};

Confronto confronta(const std::vector<std::string>& sorgente,
                    const std::vector<std::vector<std::string>>& per_segmento) {
  std::map<std::string, std::vector<long>> dove;
  for (std::size_t i = 0; i < sorgente.size(); ++i) dove[sorgente[i]].push_back(i);
  const long n = static_cast<long>(sorgente.size());
  Confronto c;
  long prec = -1;
  for (const auto& seg : per_segmento) {
    bool primo = true;
    for (const std::string& md5 : seg) {
      ++c.registrati;
      auto it = dove.find(md5);
      if (it == dove.end()) {
        ++c.sconosciuti;
        continue;
      }
      // A picture may occur more than once in the file: take the occurrence that follows.
      long qui = it->second[0];
      for (long k : it->second)
        if (prec >= 0 && k == (prec + 1) % n) qui = k;
      if (prec >= 0) {
        const long passo = ((qui - prec) % n + n) % n;
        if (passo == 0) ++c.ripetuti;
        if (passo > 1) {
          c.persi += passo - 1;
          if (primo) c.persi_giunti += passo - 1;
        }
        c.inviati += std::max(passo, 1L);
      } else {
        c.inviati = 1;
      }
      prec = qui;
      primo = false;
    }
  }
  return c;
}

bool continuita(int segmenti, int durata, Telecamere& cams) {
  if (!cams.avvia(1)) return false;
  for (int tentativo = 1;; ++tentativo) {
    std::vector<Segmento> righe;
    Nvr nvr;
    if (!nvr.avvia() || !nvr.aggiungi("Ingresso", cams.url(0), false)) return false;
    if (nvr.p->post("/api/nvr/config", {{"attivo", 1}}).status != 200) return false;
    nvr.segmenti_di(durata);
    dormi(4);
    if (!nvr.imposta(nvr.ids[0], true)) return false;
    // One more segment than measured: the first starts wherever the camera's GOP was.
    dormi((segmenti + 1) * durata + kGopSecondi + 3);
    if (!nvr.imposta(nvr.ids[0], false)) return false;  // stops the recorder before answering
    const std::string cartella = nvr.in_corso("Ingresso");
    attendi(
        [&] {
          std::error_code ec;
          return fs::is_empty(cartella, ec);
        },
        45);
    if (terminati(nvr) > 0 && tentativo < kTentativi) {
      disturbata("continuita", tentativo, righe_terminati(nvr));
      continue;
    }
    {
      nvr::Connessione db(nvr.dati + "/nvr.db");
      for (const auto& r :
           db.righe("SELECT file, inizio, fine FROM nvr_registrazioni ORDER BY inizio"))
        righe.push_back({nvr::come_testo(r[0]), nvr::come_reale(r[1]), nvr::come_reale(r[2])});
    }
    // The files go with the temporary folder: read them now.
    if (righe.size() < 3) {
      std::fprintf(stderr, "continuita: %zu segmenti nell'indice\n%s\n", righe.size(),
                   nvr.p->uscita().c_str());
      return false;
    }
    std::string errore;
    auto sorgente = nvr::testing::impronte_fotogrammi(nvr::bench::file_in_loop(), &errore);
    if (!sorgente) {
      std::fprintf(stderr, "%s\n", errore.c_str());
      return false;
    }
    std::vector<std::vector<std::string>> impronte;
    double durata_min = 1e9, durata_max = 0, salto_indice = 0;
    for (std::size_t i = 0; i < righe.size(); ++i) {
      auto v = nvr::testing::leggi_video(righe[i].file, &errore);
      auto md5 = nvr::testing::impronte_fotogrammi(righe[i].file, &errore);
      if (!v || !md5) {
        std::fprintf(stderr, "%s\n", errore.c_str());
        return false;
      }
      impronte.push_back(*md5);
      const double d = v->fotogrammi.size() / kFps;
      // The first and last segments are cut by the switch on and off, not by the length.
      if (i > 0 && i + 1 < righe.size()) {
        durata_min = std::min(durata_min, d);
        durata_max = std::max(durata_max, d);
      }
      if (i > 0)
        salto_indice = std::max(salto_indice, std::fabs(righe[i].inizio - righe[i - 1].fine));
    }
    const Confronto c = confronta(*sorgente, impronte);
    const std::string prova =
        "continuita " + std::to_string(righe.size()) + "x" + std::to_string(durata) + "s";
    riga(prova, "fotogrammi registrati / inviati", c.registrati, c.inviati, "fotogr.", "tutti");
    riga(prova, "fotogrammi persi (ai giunti)", c.persi, c.persi_giunti, "fotogr.", "0");
    riga(prova, "fotogrammi ripetuti / non riconosciuti", c.ripetuti, c.sconosciuti, "fotogr.",
         "0");
    riga(prova, "durata segmenti interi: min", durata_min, durata, "s",
         "[" + std::to_string(durata) + ", " + cifra(durata + kGopSecondi) + "]");
    riga(prova, "durata segmenti interi: max", durata_max, durata, "s");
    riga(prova, "salto max fra fine e inizio nell'indice", 1000 * salto_indice, kNessuna, "ms",
         "<= 33 ms");
    if (terminati(nvr) > 0)
      riga(prova, "registratori fermati da fuori", terminati(nvr), kNessuna, "proc.", "0");
    return true;
  }
}

}  // namespace

int main(int argc, char** argv) {
  bool rapido = false;
  std::string solo;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--quick") rapido = true;
    if (a == "--solo" && i + 1 < argc) solo = argv[++i];
  }
  if (!nvr::programma_presente("ffmpeg") || !nvr::programma_presente("ffprobe")) {
    std::fprintf(stderr, "ffmpeg/ffprobe non installati\n");
    return 1;
  }
  signal(SIGPIPE, SIG_IGN);
  Telecamere cams;
  bool ok = true;
  if (solo.empty() || solo == "carico") {
    const std::vector<int> quante = rapido ? std::vector<int>{1, 2} : std::vector<int>{1, 8, 32};
    for (int n : quante) ok = carico(n, rapido ? 20 : 120, rapido ? 20 : 60, cams) && ok;
  }
  if (solo.empty() || solo == "avvio") ok = avvio(rapido ? 1 : 3, cams) && ok;
  if (solo.empty() || solo == "continuita")
    // Segment lengths that are whole GOPs: ffmpeg cuts at the first keyframe past each multiple
    // of the length, so any other length alternates shorter and longer segments.
    ok = continuita(rapido ? 4 : 6, rapido ? 6 : 10, cams) && ok;
  return ok ? 0 : 1;
}

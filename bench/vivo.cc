// Live view: how soon a viewer has its first fragment, how soon a second viewer of a running
// stream has it, what 16 cameras with 4 viewers each cost the program, and how far behind the
// camera its stream runs. Baselines, measured in this run: bare ffmpeg with the live process's
// own arguments (engine/vivo_ffmpeg.h) writing to a pipe read here, and the same 16 cameras with
// one viewer each.
//
// One looped-file camera (bench/camera_in_loop.h: 1080p30, nothing encoded while serving) serves
// every camera id, as the recording benchmark does: on 2 cores, 16 GStreamer encoders would
// measure the encoders. Each camera id still has its own live ffmpeg and RTSP session.
//
//   bench_vivo [--quick]      (--quick: 3 runs instead of 5, 12 s of load instead of 25)
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "autonomo/programma_di_prova.h"
#include "bench/camera_in_loop.h"
#include "bench/misure.h"
#include "bench/tabella.h"
#include "bench/uso_processi.h"
#include "core/processo.h"
#include "engine/mp4_frammenti.h"
#include "engine/registratori.h"
#include "engine/vivo_ffmpeg.h"
#include "testing/ambiente.h"

using nvr::autonomo::prova::attendi;
using nvr::autonomo::prova::Programma;
using nvr::bench::kNessuna;
using nvr::bench::quantile;
using nvr::bench::riga;
using Orologio = std::chrono::steady_clock;

namespace {

constexpr int kTelecamere = 16;
constexpr int kSpettatoriPerTelecamera = 4;

const Orologio::time_point kEpoca = Orologio::now();
// Seconds since this program started: every arrival time on one clock, across threads.
double adesso() { return std::chrono::duration<double>(Orologio::now() - kEpoca).count(); }

void dormi(double secondi) { std::this_thread::sleep_for(std::chrono::duration<double>(secondi)); }

void muori(const std::string& cosa) {
  std::fprintf(stderr, "bench_vivo: %s\n", cosa.c_str());
  std::exit(1);
}

std::string cifra(double v) {
  char b[32];
  std::snprintf(b, sizeof b, "%.0f", v);
  return b;
}

// --- reading fragments -------------------------------------------------------------------------

std::uint32_t u32(std::string_view s, std::size_t i) {
  if (i + 4 > s.size()) return 0;
  const auto* p = reinterpret_cast<const unsigned char*>(s.data() + i);
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         p[3];
}

// The boxes of `dati` from `da` on, as (type, offset of the whole box, whole box).
void per_box(std::string_view dati, std::size_t da,
             const std::function<void(std::string_view, std::size_t, std::string_view)>& f) {
  for (std::size_t i = da; i + 8 <= dati.size();) {
    const std::size_t n = u32(dati, i);
    if (n < 8 || i + n > dati.size()) return;  // 64-bit sizes never occur in live fragments
    f(dati.substr(i + 4, 4), i, dati.substr(i, n));
    i += n;
  }
}

std::string_view figlio(std::string_view box, std::string_view tipo) {
  std::string_view trovato;
  per_box(box, 8, [&](std::string_view t, std::size_t, std::string_view b) {
    if (t == tipo && trovato.empty()) trovato = b;
  });
  return trovato;
}

struct Frammento {
  double arrivo = 0;         // adesso() when its last byte arrived
  std::uint32_t numero = 0;  // mfhd's sequence number: ffmpeg counts its fragments 1, 2, 3...
  std::vector<std::size_t> campioni;  // a hash of each sample's bytes, when asked
};

// The sequence number and, with `impronte`, the samples' hashes of a fragment piece (any boxes,
// then moof and its mdat). The samples are found from trun's data offset, from the start of
// moof (ffmpeg writes default-base-is-moof), or else at the start of mdat's payload.
Frammento descrivi(std::string_view pezzo, double arrivo, bool impronte) {
  Frammento f;
  f.arrivo = arrivo;
  std::string_view moof, mdat;
  std::size_t da_moof = 0, da_mdat = 0;
  per_box(pezzo, 0, [&](std::string_view t, std::size_t i, std::string_view b) {
    if (t == "moof") moof = b, da_moof = i;
    if (t == "mdat") mdat = b, da_mdat = i;
  });
  f.numero = u32(figlio(moof, "mfhd"), 12);
  if (!impronte) return f;
  const std::string_view traf = figlio(moof, "traf");
  const std::string_view tfhd = figlio(traf, "tfhd"), trun = figlio(traf, "trun");
  if (tfhd.empty() || trun.empty()) return f;
  const std::uint32_t flag_tfhd = u32(tfhd, 8) & 0xffffff;
  std::size_t j = 16;  // past size, type, version/flags, track_ID
  if (flag_tfhd & 0x1) j += 8;
  if (flag_tfhd & 0x2) j += 4;
  if (flag_tfhd & 0x8) j += 4;
  const std::uint32_t taglia_predefinita = flag_tfhd & 0x10 ? u32(tfhd, j) : 0;
  const std::uint32_t flag = u32(trun, 8) & 0xffffff;
  const std::uint32_t n = u32(trun, 12);
  std::size_t k = 16;
  std::size_t dati = da_mdat + 8;
  if (flag & 0x1) dati = da_moof + u32(trun, k), k += 4;
  if (flag & 0x4) k += 4;
  for (std::uint32_t s = 0; s < n && k <= trun.size(); ++s) {
    if (flag & 0x100) k += 4;
    std::uint32_t taglia = taglia_predefinita;
    if (flag & 0x200) taglia = u32(trun, k), k += 4;
    if (flag & 0x400) k += 4;
    if (flag & 0x800) k += 4;
    if (dati + taglia > pezzo.size()) break;
    f.campioni.push_back(std::hash<std::string_view>{}(pezzo.substr(dati, taglia)));
    dati += taglia;
  }
  return f;
}

// A stream as one reader saw it.
struct Visione {
  int status = 0;
  double inizio = 0;   // adesso() at the request, or at the process start
  double primo = NAN;  // first whole fragment, seconds after inizio
  std::vector<Frammento> frammenti;
  std::string errore;
};

// How long and what to read.
struct Modo {
  double secondi = 0;                  // stop reading after this long
  bool fino_al_primo = false;          // stop at the first whole fragment
  bool impronte = false;               // hash every sample
  std::atomic<bool>* basta = nullptr;  // stop when set
  std::atomic<int>* primi = nullptr;   // incremented at the first whole fragment
};

// Feeds one stream's bytes as they come; answers whether to go on reading.
class Raccolta {
 public:
  Raccolta(Visione& v, const Modo& m) : v_(v), m_(m) {}
  bool leggi(std::string_view byte) {
    const double ora = adesso();
    auto pezzi = lettore_.leggi(byte);
    if (!pezzi) {
      v_.errore = pezzi.errore().messaggio;
      return false;
    }
    for (const auto& p : pezzi.valore()) {
      if (p.tipo != nvr::PezzoMp4::Tipo::frammento) continue;
      if (v_.frammenti.empty()) {
        v_.primo = ora - v_.inizio;
        if (m_.primi) ++*m_.primi;
      }
      v_.frammenti.push_back(descrivi(p.dati, ora, m_.impronte));
    }
    if (m_.fino_al_primo && !v_.frammenti.empty()) return false;
    if (m_.basta && *m_.basta) return false;
    return ora - v_.inizio < m_.secondi;
  }

 private:
  Visione& v_;
  const Modo& m_;
  nvr::LettoreMp4 lettore_;
};

// GET /api/vivo/<id> on a fresh connection, read as `m` says.
Visione guarda(int porta, const std::string& cookie, std::int64_t id, const Modo& m) {
  Visione v;
  Raccolta r(v, m);
  httplib::Client c("127.0.0.1", porta);
  c.set_connection_timeout(5, 0);
  c.set_read_timeout(15, 0);
  v.inizio = adesso();
  auto esito = c.Get(
      "/api/vivo/" + std::to_string(id), {{"Cookie", cookie}},
      [&](const httplib::Response& risposta) {
        v.status = risposta.status;
        return risposta.status == 200;
      },
      [&](const char* d, std::size_t n) {
        return r.leggi({d, n});
      });
  if (!esito && v.frammenti.empty()) v.errore = httplib::to_string(esito.error());
  return v;
}

// Bare ffmpeg with the live process's arguments, its standard output read here as `m` says.
Visione ffmpeg_nudo(const std::string& url, const Modo& m) {
  Visione v;
  Raccolta r(v, m);
  int tubo[2];
  if (::pipe2(tubo, O_CLOEXEC) != 0) {
    v.errore = std::strerror(errno);
    return v;
  }
  v.inizio = adesso();
  auto p = nvr::avvia_processo({nvr::argomenti_vivo(url, nvr::_ffmpeg_major()), tubo[1]});
  ::close(tubo[1]);
  if (!p) {
    ::close(tubo[0]);
    v.errore = p.errore().messaggio;
    return v;
  }
  v.status = 200;
  std::vector<char> buf(1 << 16);
  for (bool avanti = true; avanti;) {
    pollfd pf{tubo[0], POLLIN, 0};
    if (::poll(&pf, 1, 200) > 0) {
      const ssize_t n = ::read(tubo[0], buf.data(), buf.size());
      if (n <= 0) break;
      avanti = r.leggi({buf.data(), static_cast<std::size_t>(n)});
    } else {
      avanti = adesso() - v.inizio < std::max(m.secondi, m.fino_al_primo ? 15.0 : 0.0) &&
               !(m.basta && *m.basta);
    }
  }
  ::close(tubo[0]);
  p.valore()->segnala(SIGTERM);
  if (!p.valore()->attendi(5)) p.valore()->segnala(SIGKILL);
  p.valore()->attendi(5);
  return v;
}

// --- the program -------------------------------------------------------------------------------

struct Nvr {
  nvr::testing::CartellaTemporanea t;
  std::unique_ptr<Programma> p;
  std::string cookie;  // a session of our own, for the streaming clients
  std::vector<std::int64_t> ids;

  bool avvia(const std::string& url) {
    p = Programma::su(t / "dati");
    if (!p->pronto(60) || !p->accedi()) return false;
    const auto r = p->chiama("POST", "/api/accesso", nvr::Json{{"password", p->password()}}.dump());
    const std::string c = r.intestazione("Set-Cookie");
    cookie = c.substr(0, c.find(';'));
    for (int i = 0; i < kTelecamere; ++i) {
      auto a = p->post("/api/telecamere", {{"nome", "Cam" + std::to_string(i + 1)}, {"url", url}});
      if (a.status != 200) return false;
      ids.push_back(a.json["id"]);
    }
    return true;
  }
  // Waits until no live source runs (each stops kAttesaSenzaSpettatori after its last viewer),
  // then a second more for the camera to forget the session.
  bool senza_sorgenti() {
    const bool ok = attendi(
        [&] {
          auto r = p->get("/api/vivo");
          return r.status == 200 && r.json["vivi"].empty();
        },
        30);
    dormi(1);
    return ok;
  }
  // The program's live ffmpeg children now.
  int processi_vivi() const {
    int n = 0;
    for (const auto& [pid, cpu] : nvr::bench::figli(p->pid(), "ffmpeg")) {
      std::ifstream f("/proc/" + std::to_string(pid) + "/cmdline");
      std::string riga((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
      if (riga.find(nvr::kMarcaVivo) != std::string::npos) ++n;
    }
    return n;
  }
  double stato_ms() {
    const auto t0 = Orologio::now();
    const int status = p->get("/api/nvr/stato").status;
    const double ms = nvr::bench::secondi_da(t0) * 1000;
    return status == 200 ? ms : NAN;
  }
};

// --- 1 and 2: first fragment -------------------------------------------------------------------

void primo_frammento(Nvr& n, const std::string& url, int volte) {
  std::vector<double> primo, secondo, nudo;
  for (int i = 0; i < volte; ++i) {
    if (!n.senza_sorgenti()) muori("le sorgenti dal vivo non si fermano");
    std::atomic<bool> basta{false};
    std::atomic<int> primi{0};
    Modo uno{30, false, false, &basta, &primi};
    Visione v1;
    std::thread t([&] { v1 = guarda(n.p->porta(), n.cookie, n.ids[0], uno); });
    attendi([&] { return primi > 0; }, 15);
    dormi(1.5);  // the stream runs; the second viewer joins it
    const Visione v2 = guarda(n.p->porta(), n.cookie, n.ids[0], {15, true});
    basta = true;
    t.join();
    if (v1.frammenti.empty() || v2.frammenti.empty())
      muori("diretta senza frammenti: " + std::to_string(v1.status) + " " + v1.errore + " / " +
            std::to_string(v2.status) + " " + v2.errore + "\n" + n.p->uscita());
    primo.push_back(v1.primo * 1000);
    secondo.push_back(v2.primo * 1000);

    if (!n.senza_sorgenti()) muori("le sorgenti dal vivo non si fermano");
    const Visione b = ffmpeg_nudo(url, {15, true});
    if (b.frammenti.empty()) muori("ffmpeg nudo senza frammenti: " + b.errore);
    nudo.push_back(b.primo * 1000);
  }
  const std::string prova = "vivo x" + std::to_string(volte);
  const double base = quantile(nudo, 0.5);
  riga(prova, "primo frammento, sorgente spenta (mediana)", quantile(primo, 0.5), base, "ms",
       "<= " + cifra(base + 100) + " ms");
  riga(prova, "primo frammento del 2o spettatore (mediana)", quantile(secondo, 0.5),
       quantile(primo, 0.5), "ms", "<= 50 ms");
}

// --- 3: 16 cameras, several viewers each -------------------------------------------------------

struct Carico {
  long ricevuti = 0, prodotti = 0;     // fragments, over every viewer's own span
  double quota_minima = NAN;           // the worst viewer's received / produced
  double cpu_nvr = 0, cpu_ffmpeg = 0;  // % of one core over the window
  double p95_stato = NAN;              // ms
  int processi = 0;                    // live ffmpeg children, mid-window
  int senza_dati = 0;                  // viewers that got no fragment at all
};

Carico carico(Nvr& n, int per_telecamera, double secondi) {
  Carico c;
  if (!n.senza_sorgenti()) muori("le sorgenti dal vivo non si fermano");
  const int tutti = kTelecamere * per_telecamera;
  std::vector<Visione> visioni(tutti);
  std::atomic<int> primi{0};
  const Modo modo{secondi, false, false, nullptr, &primi};
  const double inizio = adesso();
  std::vector<std::thread> fili;
  for (int i = 0; i < tutti; ++i)
    fili.emplace_back(
        [&, i] { visioni[i] = guarda(n.p->porta(), n.cookie, n.ids[i % kTelecamere], modo); });
  attendi([&] { return primi == tutti; }, 15);
  dormi(1);
  if (adesso() > inizio + secondi - 3)
    std::fprintf(stderr, "carico %dx%d: finestra di misura di meno di 2 s\n", kTelecamere,
                 per_telecamera);
  // The window ends a second before the first viewers stop reading.
  const double fine = inizio + secondi - 1;
  const auto figli0 = nvr::bench::figli(n.p->pid(), "ffmpeg");
  const double cpu0 = nvr::bench::cpu_di(n.p->pid());
  const double t0 = adesso();
  std::vector<double> stato;
  bool contati = false;
  while (adesso() < fine) {
    stato.push_back(n.stato_ms());
    if (!contati && adesso() > (t0 + fine) / 2) c.processi = n.processi_vivi(), contati = true;
    dormi(0.1);
  }
  const double durata = std::max(adesso() - t0, 1e-3);
  int cambiati = 0;
  c.cpu_ffmpeg = 100 *
                 nvr::bench::cpu_fra(figli0, nvr::bench::figli(n.p->pid(), "ffmpeg"), &cambiati) /
                 durata;
  c.cpu_nvr = 100 * (nvr::bench::cpu_di(n.p->pid()) - cpu0) / durata;
  c.p95_stato = quantile(stato, 0.95);
  for (auto& f : fili) f.join();
  c.quota_minima = 1;
  for (const Visione& v : visioni) {
    if (v.frammenti.empty()) {
      ++c.senza_dati;
      c.quota_minima = 0;
      continue;
    }
    const long prodotti =
        static_cast<long>(v.frammenti.back().numero) - v.frammenti.front().numero + 1;
    const long ricevuti = static_cast<long>(v.frammenti.size());
    c.ricevuti += ricevuti;
    c.prodotti += prodotti;
    c.quota_minima = std::min(c.quota_minima, static_cast<double>(ricevuti) / prodotti);
  }
  if (c.senza_dati)
    std::fprintf(stderr, "carico %dx%d: %d spettatori senza frammenti (%s)\n", kTelecamere,
                 per_telecamera, c.senza_dati,
                 [&] {
                   for (const Visione& v : visioni)
                     if (v.frammenti.empty()) return std::to_string(v.status) + " " + v.errore;
                   return std::string();
                 }()
                     .c_str());
  return c;
}

void fan_out(Nvr& n, double secondi, int volte_stato) {
  if (!n.senza_sorgenti()) muori("le sorgenti dal vivo non si fermano");
  std::vector<double> vuoto;
  for (int i = 0; i < volte_stato; ++i) {
    vuoto.push_back(n.stato_ms());
    dormi(0.1);
  }
  const Carico uno = carico(n, 1, secondi);
  const Carico molti = carico(n, kSpettatoriPerTelecamera, secondi);
  const std::string prova = "vivo 16x4";
  riga(prova, "frammenti ricevuti / prodotti (64 spettatori)", molti.ricevuti, molti.prodotti,
       "framm.", "tutti");
  riga(prova, "quota minima per spettatore (16x4 / 16x1)", molti.quota_minima, uno.quota_minima, "",
       "1");
  riga(prova, "CPU nvr, 16x4 contro 16x1 spettatori", molti.cpu_nvr, uno.cpu_nvr, "% core");
  riga(prova, "CPU nvr del fan-out (16x4 meno 16x1)", molti.cpu_nvr - uno.cpu_nvr, kNessuna,
       "% core", "<= 5%");
  riga(prova, "CPU dei ffmpeg della diretta, 16x4 / 16x1", molti.cpu_ffmpeg, uno.cpu_ffmpeg,
       "% core");
  riga(prova, "p95 GET /api/nvr/stato, sotto carico / senza", molti.p95_stato,
       quantile(vuoto, 0.95), "ms", "<= 50 ms");
  riga(prova, "processi ffmpeg della diretta, 16x4 / 16x1", molti.processi, uno.processi, "proc.",
       "16");
  if (molti.senza_dati || uno.senza_dati)
    riga(prova, "spettatori senza frammenti, 16x4 / 16x1", molti.senza_dati, uno.senza_dati,
         "spett.", "0");
}

// --- 4: delay behind the camera ----------------------------------------------------------------

// nvr and bare ffmpeg start together on the same camera; each picture is recognised in both
// streams by its bytes, and the difference of its arrival times is the delay nvr adds.
void ritardo(Nvr& n, const std::string& url, double secondi) {
  if (!n.senza_sorgenti()) muori("le sorgenti dal vivo non si fermano");
  const Modo modo{secondi, false, true};
  Visione mia, nuda;
  std::thread t([&] { nuda = ffmpeg_nudo(url, modo); });
  mia = guarda(n.p->porta(), n.cookie, n.ids[1], modo);
  t.join();
  // The looped file repeats after 20 s: within a shorter reading each picture occurs once.
  std::map<std::size_t, double> arrivo_nudo;
  for (const Frammento& f : nuda.frammenti)
    for (std::size_t h : f.campioni) arrivo_nudo.emplace(h, f.arrivo);
  std::vector<double> differenze, durate;
  for (const Frammento& f : mia.frammenti)
    for (std::size_t h : f.campioni)
      if (auto it = arrivo_nudo.find(h); it != arrivo_nudo.end())
        differenze.push_back((f.arrivo - it->second) * 1000);
  for (std::size_t i = 1; i < nuda.frammenti.size(); ++i)
    durate.push_back((nuda.frammenti[i].arrivo - nuda.frammenti[i - 1].arrivo) * 1000);
  if (differenze.empty())
    muori("nessun fotogramma in comune fra nvr e ffmpeg nudo: " + mia.errore + " / " + nuda.errore);
  riga("vivo ritardo", "arrivo di un fotogramma dopo ffmpeg nudo (med.)", quantile(differenze, 0.5),
       quantile(durate, 0.5), "ms", "<= base (un frammento)");
  riga("vivo ritardo", "  lo stesso, 95o percentile", quantile(differenze, 0.95),
       quantile(durate, 0.5), "ms");
}

}  // namespace

int main(int argc, char** argv) {
  const bool rapido = argc > 1 && std::string(argv[1]) == "--quick";
  if (!nvr::programma_presente("ffmpeg")) muori("ffmpeg non installato");
  signal(SIGPIPE, SIG_IGN);
  std::string motivo;
  auto camera = nvr::bench::avvia_camera_in_loop(&motivo);
  if (!camera) muori("telecamera di prova non disponibile: " + motivo);
  Nvr n;
  if (!n.avvia(camera->url())) muori("nvr non parte: " + n.p->errori() + n.p->uscita());
  // Past the engine's first pass (about ten seconds after the start).
  dormi(12);
  nvr::bench::attendi_quiete(n.p->pid(), 60);

  primo_frammento(n, camera->url(), rapido ? 3 : 5);
  fan_out(n, rapido ? 12 : 25, rapido ? 40 : 100);
  ritardo(n, camera->url(), rapido ? 8 : 15);
  return 0;
}

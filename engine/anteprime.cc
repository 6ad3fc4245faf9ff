#include "engine/anteprime.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>

#include "archive/allineamento.h"
#include "archive/elenchi.h"
#include "archive/mp4_traccia.h"
#include "archive/piano_riproduzione.h"
#include "core/log.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "core/testi.h"
#include "engine/anteprime_piano.h"
#include "storage/comando.h"

namespace nvr {

namespace {

namespace fs = std::filesystem;

constexpr const char* kNessuna = "Nessuna registrazione in quel momento";

// The pictures being made now, by path: later requests for one wait for its maker's answer.
std::mutex _lock_anteprime;
std::map<std::string, std::shared_future<Esito<std::string>>> _in_preparazione;  // guarded by
                                                                                 // _lock_anteprime
std::atomic<unsigned> _numero_temporaneo{0};

Errore guasto(const std::string& perche) {
  return Errore{502, "Anteprima non disponibile: " + perche};
}

bool presente(const std::string& percorso) {
  struct stat st;
  return ::stat(percorso.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

bool inizia_come_jpeg(const std::string& percorso) {
  std::ifstream f(percorso, std::ios::binary);
  char testa[2] = {};
  return f.read(testa, 2) && testa[0] == '\xFF' && testa[1] == '\xD8';
}

// The key frame whose presentation time is nearest `quando` (track units); the first sample
// when the track has no key frame flagged (every segment starts with one).
const Campione* chiave_vicina(const Traccia& traccia, std::int64_t quando) {
  const Campione* migliore = nullptr;
  std::int64_t distanza = 0;
  for (const Campione& c : traccia.campioni) {
    if (!c.chiave) continue;
    const std::int64_t d = std::llabs(c.dts + c.cts - quando);
    if (!migliore || d < distanza) {
      migliore = &c;
      distanza = d;
    }
  }
  if (!migliore && !traccia.campioni.empty()) migliore = &traccia.campioni.front();
  return migliore;
}

bool cartella_pronta(const std::string& cartella) {
  std::error_code ec;
  if (fs::create_directories(cartella, ec))
    fs::permissions(cartella, fs::perms::owner_all, ec);  // camera pictures are private
  return fs::is_directory(cartella, ec);
}

// Runs ffmpeg for the picture at `secondi` of `file` into a temporary name beside `percorso`,
// then renames it into place.
Esito<std::string> fai_anteprima(const std::string& file, double secondi,
                                 const std::string& percorso) {
  if (!cartella_pronta(fs::path(percorso).parent_path()))
    return guasto("cartella " + fs::path(percorso).parent_path().string() + " non creata");
  const fs::path finale(percorso);
  const std::string temporaneo =
      (finale.parent_path() / ("." + finale.stem().string() + "." + std::to_string(::getpid()) +
                               "_" + std::to_string(++_numero_temporaneo) + ".jpg"))
          .string();
  // A hair before the key frame: ffmpeg then decodes from that very frame, while a seek
  // rounded past it would give the frame after.
  char ss[32];
  std::snprintf(ss, sizeof ss, "%.3f", std::max(0.0, secondi - 0.001));
  RisultatoComando r = _comando(
      {"ffmpeg",  "-nostdin", "-hide_banner", "-loglevel", "error",   "-ss", ss,
       "-i",      file,       "-frames:v",    "1",         "-an",     "-vf", "scale=320:-2",
       "-q:v",    "6",        "-f",           "image2",    "-update", "1",   "-y",
       temporaneo},
      kAttesaAnteprima);
  std::error_code ec;
  if (r.codice != 0 || !presente(temporaneo) || !inizia_come_jpeg(temporaneo)) {
    fs::remove(temporaneo, ec);
    if (r.codice == 127) return guasto("ffmpeg non installato");
    if (r.codice == 124) return guasto("tempo scaduto");
    _log("anteprima di " + file + ": ffmpeg ha risposto " + std::to_string(r.codice) + ": " +
         spoglia_spazi_e_righe(
             r.err.substr(r.err.size() - std::min<std::size_t>(r.err.size(), 300))));
    return guasto("ffmpeg non ha prodotto l'immagine");
  }
  fs::rename(temporaneo, finale, ec);
  if (ec) {
    fs::remove(temporaneo, ec);
    return guasto("immagine non salvata");
  }
  return percorso;
}

// The picture at `percorso`, made by this caller or by the one already making it.
Esito<std::string> una_volta(const std::string& file, double secondi, const std::string& percorso) {
  if (presente(percorso)) return percorso;
  std::promise<Esito<std::string>> promessa;
  std::shared_future<Esito<std::string>> attesa;
  bool tocca_a_me = false;
  {
    std::lock_guard l(_lock_anteprime);
    auto it = _in_preparazione.find(percorso);
    if (it != _in_preparazione.end()) {
      attesa = it->second;
    } else {
      attesa = promessa.get_future().share();
      _in_preparazione.emplace(percorso, attesa);
      tocca_a_me = true;
    }
  }
  if (!tocca_a_me) {
    if (attesa.wait_for(std::chrono::duration<double>(kAttesaAnteprima + 5)) !=
        std::future_status::ready)
      return guasto("tempo scaduto");
    return attesa.get();
  }
  Esito<std::string> fatto = guasto("errore interno");
  try {
    // It may have been finished between the first look and taking the turn.
    fatto =
        presente(percorso) ? Esito<std::string>(percorso) : fai_anteprima(file, secondi, percorso);
  } catch (const std::exception& e) {
    fatto = guasto(e.what());
  }
  promessa.set_value(fatto);
  std::lock_guard l(_lock_anteprime);
  _in_preparazione.erase(percorso);
  return fatto;
}

}  // namespace

std::string cartella_anteprime() {
  std::shared_ptr<Host> host = host_attuale();
  if (!host) return "";
  return (fs::path(host->DB_FILE).parent_path() / "nvr_anteprime").string();
}

Esito<std::string> anteprima(CamId cam, double t) {
  const std::string cartella = cartella_anteprime();
  if (cartella.empty()) return guasto("registratore non collegato");
  GiornataCamera g = giornata_camera(cam, t - kVicinanzaAnteprima, t + kVicinanzaAnteprima);
  std::vector<std::string> file;
  for (const SegmentoElencato& s : g.segmenti) file.push_back(s.file);
  const std::set<std::string> manca = _mancanti(file);
  std::erase_if(g.segmenti, [&](const SegmentoElencato& s) {
    return s.file.empty() || manca.count(s.file) > 0;
  });
  const std::optional<std::size_t> i = segmento_per(g.segmenti, t);
  if (!i) return Errore{404, kNessuna};
  const SegmentoElencato& s = g.segmenti[*i];

  Esito<Traccia> traccia = leggi_traccia(s.file);
  if (!traccia) return guasto(traccia.errore().messaggio);
  const Traccia& tr = traccia.valore();
  if (tr.scala == 0) return guasto("traccia senza scala dei tempi");
  const double inizio = avvio(SegmentoPiano{s, static_cast<double>(tr.durata) / tr.scala});
  const Campione* chiave =
      chiave_vicina(tr, static_cast<std::int64_t>(std::llround((t - inizio) * tr.scala)));
  if (!chiave) return Errore{404, kNessuna};
  const double secondi =
      static_cast<double>(std::max<std::int64_t>(0, chiave->dts + chiave->cts)) / tr.scala;
  const std::string percorso =
      (fs::path(cartella) / nome_anteprima(s.id, std::llround(secondi * 1000))).string();
  return una_volta(s.file, secondi, percorso);
}

int pulisci_anteprime() {
  try {
    const std::string cartella = cartella_anteprime();
    std::error_code ec;
    if (cartella.empty() || !fs::is_directory(cartella, ec)) return 0;
    std::vector<VoceCache> voci;
    std::vector<std::int64_t> ids;
    for (fs::directory_iterator it(cartella, ec), fine; !ec && it != fine; it.increment(ec)) {
      struct stat st;
      if (::lstat(it->path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
      VoceCache v{it->path().filename().string(), static_cast<std::uint64_t>(st.st_size),
                  static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9};
      if (auto id = id_di_anteprima(v.nome)) ids.push_back(*id);
      voci.push_back(std::move(v));
    }
    if (ec) {
      _log("anteprime: cartella " + cartella + " non leggibile: " + ec.message());
      return 0;
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    const std::set<std::int64_t> vivi = righe_presenti(ids);
    int tolti = 0;
    for (const std::string& nome : da_togliere(voci, vivi, kMassimoAnteprime, _ora()))
      if (fs::remove(fs::path(cartella) / nome, ec)) ++tolti;
    return tolti;
  } catch (const std::exception& e) {
    _log(std::string("anteprime: pulizia non fatta: ") + e.what());
  } catch (...) {
    _log("anteprime: pulizia non fatta");
  }
  return 0;
}

}  // namespace nvr

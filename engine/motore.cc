#include "engine/motore.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>

#include "archive/allineamento.h"
#include "archive/indice.h"
#include "archive/pulizia.h"
#include "core/config.h"
#include "core/log.h"
#include "core/processo.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "engine/decisione.h"
#include "engine/posizione.h"
#include "engine/registratori.h"
#include "storage/archivio.h"
#include "storage/comando.h"
#include "storage/con_timeout.h"

namespace nvr {

namespace {

std::atomic<bool> fermare{false};

bool ha_registratore(CamId id) {
  std::lock_guard l(_lock);
  return _processi.count(id) > 0;
}

bool ci_sono_registratori() {
  std::lock_guard l(_lock);
  return !_processi.empty();
}

// A problem text is logged when it changes, not at every pass.
void segnala_problema(const std::string& testo, const std::string& da_registrare) {
  if (_problema.get().testo != testo) _log(da_registrare);
  _problema.set({testo});
}

void indicizza_periodico(const Config& cfg, std::vector<Camera>& cams, double t) {
  _ultimo_indice = t;
  bool profondo = t - _ultimo_profondo > 600;
  if (profondo) _ultimo_profondo = t;
  _indicizza(cfg, cams, profondo);
}

// Recording switched off: stop everything, but keep filing what the recorders left behind.
void giro_spento(const Config& cfg, std::vector<Camera>& cams) {
  if (ci_sono_registratori()) _ferma_tutto("NVR disattivato");
  _problema.set({""});
  double t = _ora();
  if (cfg.cartella.empty() || t - _ultimo_indice <= 10) return;
  _ultimo_indice = t;
  std::string cartella = cfg.cartella;
  auto esiste = _con_timeout(
      [cartella] {
        std::error_code ec;
        return std::filesystem::is_directory(cartella, ec);
      },
      5);
  if (!esiste) throw std::runtime_error(esiste.errore().messaggio);
  if (!esiste.valore()) return;
  bool profondo = t - _ultimo_profondo > 600;
  if (profondo) _ultimo_profondo = t;
  _indicizza(cfg, cams, profondo);
}

void segna_errore_avvio(const Camera& cam, const std::string& err) {
  std::lock_guard l(_lock);
  auto it = _errori_recenti.find(cam.id);
  int n = it == _errori_recenti.end() ? 1 : it->second.n + 1;
  _errori_recenti[cam.id] = ErroreRecente{n, err, _ora()};
}

// The recorder of `cam` runs: restart it when its folder or segment length no longer match.
void allinea_registratore(const Config& cfg, const Camera& cam, const std::vector<Camera>& cams,
                          const std::string& motivo) {
  std::string cartella_attuale;
  int segmento_attuale = 0;
  {
    std::lock_guard l(_lock);
    auto it = _processi.find(cam.id);
    if (it == _processi.end()) return;
    it->second.motivo = motivo;
    cartella_attuale = it->second.cartella;
    segmento_attuale = it->second.segmento;
  }
  std::string voluta = _cartella_in_corso(cfg, cam, cams);
  int segmento = cfg.segmento_sec ? cfg.segmento_sec : 300;
  if (voluta == cartella_attuale && segmento == segmento_attuale) return;
  if (!cartella_attuale.empty() && cartella_attuale != voluta) {
    std::lock_guard l(_lock);
    _in_corso_precedenti[cam.id].insert(cartella_attuale);
  }
  _ferma(cam.id,
         segmento != segmento_attuale ? "nuova durata degli spezzoni" : "cartella cambiata");
  auto [ok, err] = _avvia(cfg, cam, motivo, cams);
  if (!ok) _log(cam.nome + ": " + err);
}

}  // namespace

void _giro() {
  Config cfg = leggi_config();
  std::vector<Camera> cams = _telecamere();

  if (!cfg.attivo) {
    giro_spento(cfg, cams);
    return;
  }

  auto [pronto, msg] = _archivio_pronto(cfg);
  if (!pronto) {
    if (ci_sono_registratori()) _ferma_tutto(msg);
    segnala_problema(msg, msg);
    return;
  }
  if (!ffmpeg_presente()) {
    segnala_problema("ffmpeg non installato", "ffmpeg non installato: nessuna registrazione");
    return;
  }
  _problema.set({""});

  _controlla_processi();

  std::set<CamId> ids;
  for (const Camera& c : cams) ids.insert(c.id);
  std::vector<CamId> in_corso;
  {
    std::lock_guard l(_lock);
    for (const auto& [id, p] : _processi) in_corso.push_back(id);
  }
  for (CamId id : in_corso)
    if (!ids.count(id)) _ferma(id, "telecamera rimossa");

  std::tm adesso = _adesso();
  std::optional<Json> stati;
  for (const Camera& cam : cams) {
    if (!cam.attiva || cam.url.empty()) {
      if (ha_registratore(cam.id)) _ferma(cam.id, "telecamera disattivata");
      continue;
    }
    if (cam.modo == "eventi" && !stati) stati = _stati_attuali();
    auto [deve, motivo] = _deve_registrare(cam, stati ? *stati : Json::object(), adesso);
    bool p = ha_registratore(cam.id);

    if (deve && !p) {
      std::optional<ErroreRecente> e;
      {
        std::lock_guard l(_lock);
        auto it = _errori_recenti.find(cam.id);
        if (it != _errori_recenti.end()) e = it->second;
      }
      if (e && _ora() - e->ts < std::min(5.0 * e->n, 60.0)) continue;  // back-off
      auto [ok, err] = _avvia(cfg, cam, motivo, cams);
      if (!ok) {
        segna_errore_avvio(cam, err);
        _log(cam.nome + ": " + err);
      }
    } else if (!deve && p) {
      _ferma(cam.id, "fuori orario/evento finito");
    } else if (deve && p) {
      allinea_registratore(cfg, cam, cams, motivo);
    }
  }

  bool eventi = std::any_of(cams.begin(), cams.end(),
                            [](const Camera& c) { return c.attiva && c.modo == "eventi"; });
  if (eventi) {
    if (!stati || stati->empty()) stati = _stati_attuali();
    _segna_eventi(cams, *stati);
  }

  double t = _ora();
  if (t - _ultimo_indice > 10) indicizza_periodico(cfg, cams, t);
  if (t - _ultimo_allineamento > 300) {
    _ultimo_allineamento = t;
    int n = _allinea(cfg);
    if (n) _log(std::to_string(n) + " voci senza file tolte dall'elenco");
  }
  if (t - _ultima_pulizia > 3600) {
    _ultima_pulizia = t;
    _pulizia(cfg);
  }
}

void _giro_sicuro() { _sveglia.set(); }

bool nvr_attivo() {
  if (!leggi_config().attivo) return false;
  std::vector<Camera> cams = _telecamere();
  return std::any_of(cams.begin(), cams.end(), [](const Camera& c) { return c.attiva; });
}

void _ferma_orfani() {
  if (!programma_presente("pkill")) return;
  RisultatoComando r = _radice({"pkill", "-INT", "-f", kModelloOrfani}, 10);
  if (r.codice != 0) return;
  _log("ffmpeg rimasti da un avvio precedente: fermati");
  std::this_thread::sleep_for(std::chrono::seconds(3));
}

void _motore() {
  _sveglia.wait(10);
  if (fermare) {
    fermare = false;
    return;
  }
  try {
    _ferma_orfani();
  } catch (const std::exception& e) {
    _log(std::string("controllo ffmpeg orfani: ") + e.what());
  }
  while (!fermare) {
    _sveglia.clear();
    {
      std::lock_guard g(_giro_lock);
      try {
        _giro();
      } catch (const std::exception& e) {
        _log(std::string("giro del motore: ") + e.what());
      } catch (...) {
        _log("giro del motore: errore sconosciuto");
      }
    }
    if (fermare) break;
    _sveglia.wait(3);
  }
  fermare = false;  // a later engine thread (in the next test) starts afresh
}

void arresta_motore() {
  fermare = true;
  _sveglia.set();
}

}  // namespace nvr

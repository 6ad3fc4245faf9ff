#include "engine/motore.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <thread>

#include "archive/allineamento.h"
#include "archive/indice.h"
#include "archive/pulizia.h"
#include "core/condiviso.h"
#include "core/config.h"
#include "core/evento.h"
#include "core/log.h"
#include "core/processo.h"
#include "core/tempo.h"
#include "engine/allineamento_mirato.h"
#include "engine/anteprime.h"
#include "engine/archivio_pronto.h"
#include "engine/decisione.h"
#include "engine/piano_giro.h"
#include "engine/registratori.h"
#include "engine/salute.h"
#include "engine/salute_raccolta.h"
#include "engine/vivo.h"
#include "storage/comando.h"
#include "storage/con_timeout.h"

namespace nvr {

namespace {

std::atomic<bool> fermare{false};

std::mutex _giro_lock;  // held for one whole pass; taken before the recorder table's mutex
Evento _sveglia;        // wakes the engine before its wait ends
Condiviso<std::string> _problema;  // the system-wide problem, "" when all is well

// When each periodic job last ran; engine thread only.
TempiLavori tempi;

// A problem text is logged when it changes, not at every pass.
void annota_problema(const std::string& testo, const std::string& da_registrare) {
  if (_problema.get() != testo) _log(da_registrare);
  _problema.set(testo);
}

RegistratoriInCorso per_indice(const std::map<CamId, Registratore>& registratori) {
  RegistratoriInCorso vista;
  for (const auto& [id, r] : registratori) vista[id] = {r.cartella, r.motivo};
  return vista;
}

std::map<CamId, VistaRegistratore> vista_di(const std::map<CamId, Registratore>& registratori) {
  std::map<CamId, VistaRegistratore> vista;
  for (const auto& [id, r] : registratori) vista[id] = {r.cartella, r.segmento};
  return vista;
}

// Each enabled camera's decision; the host's entity states are asked once, and only when an
// event camera needs them.
std::map<CamId, std::pair<bool, std::string>> decidi(const std::vector<Camera>& cams,
                                                     std::optional<Json>& stati) {
  std::map<CamId, std::pair<bool, std::string>> decisioni;
  std::tm adesso = _adesso();
  for (const Camera& cam : cams) {
    if (!cam.attiva || cam.url.empty()) continue;
    if (cam.modo == "eventi" && !stati) stati = _stati_attuali();
    decisioni[cam.id] = _deve_registrare(cam, stati ? *stati : Json::object(), adesso);
  }
  return decisioni;
}

void esegui(const Situazione& s, const Azione& a) {
  auto cam =
      std::find_if(s.cams.begin(), s.cams.end(), [&](const Camera& c) { return c.id == a.cam; });
  switch (a.mossa) {
    case Mossa::ferma:
      _ferma(a.cam, a.perche);
      return;
    case Mossa::conferma:
      conferma_motivo(a.cam, a.motivo);
      return;
    case Mossa::riavvia: {
      auto vecchio = registratore_di(a.cam);
      // The old folder may still hold finished segments: the index drains it later.
      if (a.cartella_cambiata && vecchio && !vecchio->cartella.empty())
        aggiungi_in_corso_precedente(a.cam, vecchio->cartella);
      _ferma(a.cam, a.perche);
      auto [ok, err] = _avvia(s.cfg, *cam, a.motivo, s.cams);
      if (!ok) _log(cam->nome + ": " + err);
      return;
    }
    case Mossa::avvia: {
      auto [ok, err] = _avvia(s.cfg, *cam, a.motivo, s.cams);
      if (ok) return;
      segna_errore_avvio(a.cam, err);
      _log(cam->nome + ": " + err);
      return;
    }
  }
}

// With recording off the archive folder may be gone (a drive unplugged on purpose): a hung or
// missing folder skips the index instead of creating anything.
bool cartella_presente(const std::string& cartella) {
  auto esiste = _con_timeout(
      [cartella] {
        std::error_code ec;
        return std::filesystem::is_directory(cartella, ec);
      },
      5);
  if (!esiste) throw std::runtime_error(esiste.errore().messaggio);
  return esiste.valore();
}

void esegui_lavori(const Situazione& s, const Lavori& l, std::vector<Camera>& cams) {
  if (l.indice) {
    tempi.indice = s.adesso;
    if (s.cfg.attivo || cartella_presente(s.cfg.cartella)) {
      if (l.profondo) tempi.profondo = s.adesso;
      _indicizza(s.cfg, cams, l.profondo, per_indice(registratori_in_corso()));
    }
  }
  if (l.allineamento) {
    tempi.allineamento = s.adesso;
    int n = allinea_dove_cambiato(s.cfg, s.adesso);
    if (n) _log(std::to_string(n) + " voci senza file tolte dall'elenco");
  }
  if (l.pulizia) {
    tempi.pulizia = s.adesso;
    _pulizia(s.cfg);
    // Retention has just deleted rows: their timeline pictures go too.
    pulisci_anteprime();
  }
}

}  // namespace

void _giro() {
  Situazione s;
  s.cfg = leggi_config();
  s.cams = _telecamere();
  std::optional<Json> stati;
  bool registra = false;
  if (s.cfg.attivo) {
    auto [pronto, msg] = _archivio_pronto(s.cfg);
    s.non_pronto = pronto ? "" : msg;
    s.ffmpeg = !pronto || ffmpeg_presente();
    registra = pronto && s.ffmpeg;
    if (registra) {
      _controlla_processi();
      s.errori = errori_recenti();
      s.decisioni = decidi(s.cams, stati);
    }
  }
  s.registratori = vista_di(registratori_in_corso());
  s.tempi = tempi;
  s.adesso = _ora();

  PianoGiro piano = pianifica_giro(s);
  for (const Azione& a : piano.azioni) esegui(s, a);
  if (piano.problema.empty())
    _problema.set("");
  else
    annota_problema(piano.problema, piano.log_problema);
  // Before the jobs, so that a failing index job does not leave the health stale; the health then
  // sees the index as the previous pass left it.
  try {
    aggiorna_salute(s);
  } catch (const std::exception& e) {
    _log(std::string("salute: ") + e.what());
  }

  bool eventi = std::any_of(s.cams.begin(), s.cams.end(),
                            [](const Camera& c) { return c.attiva && c.modo == "eventi"; });
  if (registra && eventi) {
    if (!stati || stati->empty()) stati = _stati_attuali();
    _segna_eventi(s.cams, *stati);
  }
  esegui_lavori(s, piano.lavori, s.cams);
}

void _giro_sicuro() { _sveglia.set(); }

bool giro_richiesto() { return _sveglia.is_set(); }

std::string problema_attuale() { return _problema.get(); }

std::unique_lock<std::mutex> blocca_giri(std::optional<double> limite) {
  if (!limite) return std::unique_lock(_giro_lock);
  std::unique_lock l(_giro_lock, std::defer_lock);
  auto fine = std::chrono::steady_clock::now() + std::chrono::duration<double>(*limite);
  while (!l.try_lock() && std::chrono::steady_clock::now() < fine)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return l;
}

void azzera_motore_per_test() {
  _sveglia.clear();
  _problema.set("");
  tempi = {};
  azzera_allineamento_mirato_per_test();
  azzera_raccolta_salute_per_test();
  azzera_salute_per_test();
}

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

namespace {
std::atomic<double> segno_di_vita{0};

void batti_segno_di_vita() {
  segno_di_vita =
      std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
}  // namespace

double ultimo_segno_di_vita_motore() { return segno_di_vita; }

void _motore() {
  batti_segno_di_vita();
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
  try {
    _ferma_vivi_orfani();
  } catch (const std::exception& e) {
    _log(std::string("controllo ffmpeg orfani della diretta: ") + e.what());
  }
  while (!fermare) {
    _sveglia.clear();
    {
      std::lock_guard g(_giro_lock);
      auto inizio = std::chrono::steady_clock::now();
      try {
        _giro();
      } catch (const std::exception& e) {
        _log(std::string("giro del motore: ") + e.what());
      } catch (...) {
        _log("giro del motore: errore sconosciuto");
      }
      registra_durata_giro(
          std::chrono::duration<double>(std::chrono::steady_clock::now() - inizio).count());
    }
    batti_segno_di_vita();
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

#include "engine/salute_raccolta.h"

#include <atomic>
#include <map>

#include "archive/riepilogo.h"
#include "core/log.h"
#include "core/tempo.h"
#include "engine/registratori.h"
#include "engine/salute.h"
#include "engine/salute_piano.h"
#include "storage/montaggi.h"

namespace nvr {

namespace {

// The 24 h sums read rows in proportion to a day's segments: often enough for a rate.
constexpr double kRinfrescoRecenti = 300.0;

std::atomic<double> _margine{kMargineFerma};

// The collector's memory between passes: touched only by the engine thread inside a pass
// (guarded by _giro_lock), and by tests with no engine thread.
std::map<CamId, bool> _voluta;       // the last decision made for each camera
std::map<CamId, double> _voluta_da;  // since when it has been wanted
std::map<CamId, RecentiCamera> _recenti;
double _recenti_quando = 0;
std::vector<Problema> _visti;  // the problems of the previous collection

}  // namespace

void imposta_margine_ferma_per_test(double secondi) { _margine = secondi; }

void azzera_raccolta_salute_per_test() {
  _voluta.clear();
  _voluta_da.clear();
  _recenti.clear();
  _recenti_quando = 0;
  _visti.clear();
  _margine = kMargineFerma;
}

void aggiorna_salute(const Situazione& s) {
  const double adesso = _ora();
  const Config& cfg = s.cfg;

  if (!cfg.attivo) {
    _voluta.clear();
  } else if (s.non_pronto.empty() && s.ffmpeg) {  // the pass decided
    _voluta.clear();
    for (const auto& [id, d] : s.decisioni) _voluta[id] = d.first;
  }
  for (auto it = _voluta_da.begin(); it != _voluta_da.end();)
    it = _voluta.count(it->first) && _voluta[it->first] ? std::next(it) : _voluta_da.erase(it);
  for (const auto& [id, vuole] : _voluta)
    if (vuole && !_voluta_da.count(id)) _voluta_da[id] = adesso;

  std::vector<CamId> ids;
  for (const Camera& c : s.cams) ids.push_back(c.id);
  std::map<CamId, TotaliCamera> totali = totali_camere(ids);
  if (adesso - _recenti_quando >= kRinfrescoRecenti || _recenti.size() != ids.size()) {
    _recenti = recenti_camere(ids, adesso - 86400);
    _recenti_quando = adesso;
  }
  std::map<CamId, Registratore> registratori = registratori_in_corso();
  std::map<CamId, int> avvii = avvii_ultima_ora(adesso);

  OsservaSalute o;
  o.adesso = adesso;
  o.attivo = cfg.attivo != 0;
  o.segmento_sec = cfg.segmento_sec;
  o.giorni = cfg.giorni;
  o.spazio_min_gb = cfg.spazio_min_gb;
  o.margine = _margine;
  o.ffmpeg = cfg.attivo && s.non_pronto.empty() ? s.ffmpeg : ffmpeg_presente();
  std::optional<Spazio> sp = cfg.cartella.empty() ? std::nullopt : _spazio_sicuro(cfg.cartella);
  if (sp) {
    o.byte_liberi = static_cast<std::uint64_t>(sp->libero_gb * 1e9);
    o.byte_totali = static_cast<std::uint64_t>(sp->totale_gb * 1e9);
  }
  // A full drive is still connected: the space problem says what is wrong with it.
  o.archivio_collegato =
      cfg.attivo ? s.non_pronto.empty() || (sp && s.non_pronto.starts_with("Spazio esaurito"))
                 : sp.has_value();
  o.archivio_messaggio = s.non_pronto;
  for (const Camera& c : s.cams) {
    OsservaCamera oc;
    oc.id = c.id;
    oc.nome = c.nome;
    oc.abilitata = c.attiva && !c.url.empty();
    oc.voluta = _voluta.count(c.id) && _voluta[c.id];
    oc.voluta_da = _voluta_da.count(c.id) ? _voluta_da[c.id] : adesso;
    auto r = registratori.find(c.id);
    oc.in_corso = r != registratori.end();
    if (oc.in_corso && r->second.errori == 0) oc.avviato_da = r->second.da;
    oc.avvii_ultima_ora = avvii.count(c.id) ? avvii[c.id] : 0;
    const TotaliCamera& t = totali[c.id];
    oc.ultima_fine = t.ultima_fine;
    oc.segmenti = t.n;
    oc.byte = static_cast<std::int64_t>(t.byte);
    oc.byte_24h = _recenti[c.id].byte;
    oc.primo_inizio_24h = _recenti[c.id].primo_inizio;
    o.camere.push_back(std::move(oc));
  }

  Salute salute = valuta_salute(o);
  CambiProblemi cambi = confronta_problemi(_visti, salute.problemi);
  _visti = cambi.problemi;
  salute.problemi = std::move(cambi.problemi);
  for (const std::string& riga : cambi.righe) _log(riga);
  pubblica_salute(std::move(salute));
}

}  // namespace nvr

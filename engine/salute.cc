#include "engine/salute.h"

#include <algorithm>
#include <mutex>

#include "core/log.h"
#include "core/tempo.h"

namespace nvr {

namespace {

// Pass durations run from a few milliseconds (nothing to do) to many seconds (a hung share).
constexpr double kLimitiGiri[] = {0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30};

std::mutex _salute_lock;       // guards the three below; never held across I/O
Salute _dal_motore;            // the engine's last snapshot
std::vector<Problema> _altri;  // raised by other services, in the order they arrived
IstogrammaGiri _giri;

IstogrammaGiri vuoto() {
  IstogrammaGiri h;
  h.limiti.assign(std::begin(kLimitiGiri), std::end(kLimitiGiri));
  h.conteggi.assign(h.limiti.size(), 0);
  return h;
}

}  // namespace

const char* testo_stato(StatoCamera s) {
  switch (s) {
    case StatoCamera::registra:
      return "registra";
    case StatoCamera::ferma:
      return "ferma";
    case StatoCamera::spenta:
      return "spenta";
    case StatoCamera::in_attesa:
      return "in_attesa";
  }
  return "spenta";
}

Salute salute_attuale() {
  std::lock_guard l(_salute_lock);
  Salute s = _dal_motore;
  s.problemi.insert(s.problemi.end(), _altri.begin(), _altri.end());
  return s;
}

void segnala_problema(const std::string& codice, const std::string& testo) {
  std::string da_registrare;
  {
    std::lock_guard l(_salute_lock);
    auto p = std::find_if(_altri.begin(), _altri.end(),
                          [&](const Problema& x) { return x.codice == codice; });
    if (p == _altri.end()) {
      _altri.push_back({codice, testo, _ora()});
      da_registrare = testo;
    } else if (p->testo != testo) {
      p->testo = testo;
      da_registrare = testo;
    }
  }
  if (!da_registrare.empty()) _log("problema: " + da_registrare);
}

void ritira_problema(const std::string& codice) {
  std::string testo;
  {
    std::lock_guard l(_salute_lock);
    auto p = std::find_if(_altri.begin(), _altri.end(),
                          [&](const Problema& x) { return x.codice == codice; });
    if (p == _altri.end()) return;
    testo = p->testo;
    _altri.erase(p);
  }
  _log("risolto: " + testo);
}

IstogrammaGiri istogramma_giri() {
  std::lock_guard l(_salute_lock);
  if (_giri.limiti.empty()) return vuoto();
  return _giri;
}

void registra_durata_giro(double secondi) {
  std::lock_guard l(_salute_lock);
  if (_giri.limiti.empty()) _giri = vuoto();
  for (std::size_t i = 0; i < _giri.limiti.size(); ++i)
    if (secondi <= _giri.limiti[i]) ++_giri.conteggi[i];
  ++_giri.totale;
  _giri.somma += secondi;
}

void pubblica_salute(Salute s) {
  std::lock_guard l(_salute_lock);
  _dal_motore = std::move(s);
}

void azzera_salute_per_test() {
  std::lock_guard l(_salute_lock);
  _dal_motore = {};
  _altri.clear();
  _giri = vuoto();
}

}  // namespace nvr

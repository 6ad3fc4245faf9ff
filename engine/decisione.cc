#include "engine/decisione.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <exception>
#include <map>
#include <mutex>
#include <optional>

#include "core/db.h"
#include "core/log.h"
#include "core/testi.h"
#include "core/stato.h"

namespace nvr {

namespace {
// Engine thread only in practice; the mutex keeps tests and a second caller honest.
std::mutex eventi_m;
std::map<CamId, double> _stato_eventi;  // guarded by eventi_m: last pass that saw an entity on
std::map<std::string, std::string> _ultimi_stati;  // guarded by eventi_m: entity -> "on"/"off"
}  // namespace

void azzera_decisione_per_test() {
  std::lock_guard l(eventi_m);
  _stato_eventi.clear();
  _ultimi_stati.clear();
}

namespace {

// A whole number as a person types it in a form: blanks around it and a sign allowed.
std::optional<int> numero(const std::string& testo) {
  const std::string s = spoglia(testo);
  std::size_t a = 0, b = s.size();
  bool meno = false;
  if (a < b && (s[a] == '+' || s[a] == '-')) meno = s[a++] == '-';
  if (a == b) return std::nullopt;
  int n = 0;
  for (; a < b; ++a) {
    if (s[a] < '0' || s[a] > '9') return std::nullopt;
    n = n * 10 + (s[a] - '0');
  }
  return meno ? -n : n;
}

// Minutes since midnight of an "HH:MM" text: characters 0-1 and 3-4, nothing else looked at.
std::optional<int> minuti(const Json& v) {
  if (!v.is_string()) return std::nullopt;
  const std::string& s = v.get_ref<const std::string&>();
  auto h = numero(s.substr(0, 2));
  auto m = numero(s.size() > 3 ? s.substr(3, 2) : "");
  if (!h || !m) return std::nullopt;
  return *h * 60 + *m;
}

struct Fascia {
  int da, a;
  std::array<bool, 7> giorni{};  // Monday first
};

std::optional<Fascia> leggi_fascia(const Json& o) {
  if (!o.is_object()) return std::nullopt;
  auto da = minuti(campo(o, "da"));
  auto a = minuti(campo(o, "a"));
  if (!da || !a) return std::nullopt;
  Fascia f{*da, *a};
  const Json& giorni = campo(o, "giorni");
  if (vuoto(giorni)) {
    f.giorni.fill(true);
    return f;
  }
  if (!giorni.is_array()) return std::nullopt;
  for (const Json& g : giorni) {
    auto n = intero(g);
    if (!n) return std::nullopt;
    if (*n >= 0 && *n < 7) f.giorni[static_cast<std::size_t>(*n)] = true;
  }
  return f;
}

bool dentro(const Fascia& f, int g, int m) {
  if (f.da <= f.a) return f.giorni[g] && f.da <= m && m < f.a;
  // Past midnight: the morning part belongs to the entry of the day before.
  return (f.giorni[g] && m >= f.da) || (f.giorni[(g + 6) % 7] && m < f.a);
}

// Entity ids are texts; anything else names no entity the host could report.
const Json& stato_di(const Json& stati, const Json& entita) {
  static const Json assente;
  if (!entita.is_string()) return assente;
  return campo(stati, entita.get_ref<const std::string&>());
}

bool attivo_di_ripiego(const Json& stato) {
  std::string t = minuscolo(testo_di(stato));
  static constexpr std::array<std::string_view, 6> kAttivi = {"on", "open",    "true",
                                                              "1",  "playing", "detected"};
  return std::find(kAttivi.begin(), kAttivi.end(), t) != kAttivi.end();
}

}  // namespace

bool _in_orario(const Json& orari, const std::tm& adesso) {
  if (!orari.is_array()) return false;
  const int g = giorno_settimana(adesso);
  const int m = adesso.tm_hour * 60 + adesso.tm_min;
  for (const Json& o : orari) {
    std::optional<Fascia> f = leggi_fascia(o);
    if (f && dentro(*f, g, m)) return true;
  }
  return false;
}

Json _stati_attuali() {
  std::shared_ptr<Host> host = host_attuale();
  if (!host || !host->get_all_internal_states) return Json::object();
  try {
    Json stati = host->get_all_internal_states();
    if (stati.is_object()) return stati;
  } catch (...) {
    // A host that cannot answer must not stop the engine: no states, so no event is active.
  }
  return Json::object();
}

bool _attivo(const Json& stato) {
  std::shared_ptr<Host> host = host_attuale();
  if (host && host->normalize_state) {
    try {
      return host->normalize_state(stato) == "on";
    } catch (...) {
      // The host's rules failed on this value; read it with the common words instead.
    }
  }
  return attivo_di_ripiego(stato);
}

std::pair<bool, std::string> _deve_registrare(const Camera& cam, const Json& stati,
                                              const std::tm& adesso, double ora) {
  if (cam.modo == "sempre") return {true, "continua"};
  if (cam.modo == "orari") {
    if (_in_orario(cam.orari, adesso)) return {true, "orario"};
    return {false, ""};
  }
  bool attivo = false;
  if (cam.eventi.is_array()) {
    for (const Json& e : cam.eventi) {
      if (_attivo(stato_di(stati, e))) {
        attivo = true;
        break;
      }
    }
  }
  double ultimo = 0.0;
  {
    std::lock_guard l(eventi_m);
    if (attivo) {
      _stato_eventi[cam.id] = ora;
      return {true, "evento"};
    }
    auto it = _stato_eventi.find(cam.id);
    if (it != _stato_eventi.end()) ultimo = it->second;
  }
  if (ultimo == 0.0) return {false, ""};
  if (ora - ultimo < cam.post_roll) return {true, "evento"};
  return {false, ""};
}

void _segna_eventi(const std::vector<Camera>& cams, const Json& stati, double ora) {
  // Entity -> the cameras watching it, in the order they were first met.
  std::vector<std::pair<std::string, std::vector<CamId>>> interessanti;
  for (const Camera& c : cams) {
    if (!c.attiva || c.modo != "eventi" || !c.eventi.is_array()) continue;
    for (const Json& e : c.eventi) {
      if (!e.is_string()) continue;
      const std::string& id = e.get_ref<const std::string&>();
      auto it = std::find_if(interessanti.begin(), interessanti.end(),
                             [&](const auto& x) { return x.first == id; });
      if (it == interessanti.end()) {
        interessanti.push_back({id, {}});
        it = std::prev(interessanti.end());
      }
      it->second.push_back(c.id);
    }
  }
  if (interessanti.empty()) return;

  // The host is asked outside the mutex; the table is updated in one go.
  std::vector<std::string> nuovi;
  nuovi.reserve(interessanti.size());
  for (const auto& [e, _] : interessanti) nuovi.push_back(_attivo(campo(stati, e)) ? "on" : "off");

  std::vector<std::vector<Valore>> righe;
  {
    std::lock_guard l(eventi_m);
    for (std::size_t i = 0; i < interessanti.size(); ++i) {
      const auto& [e, camere] = interessanti[i];
      auto [it, primo] = _ultimi_stati.try_emplace(e, nuovi[i]);
      if (primo) continue;  // the state in force at start-up is not a change
      if (it->second == nuovi[i]) continue;
      it->second = nuovi[i];
      for (CamId cid : camere) righe.push_back({cid, ora, e, nuovi[i]});
    }
  }
  if (righe.empty()) return;

  try {
    Connessione c = _db();
    c.esegui_molti("INSERT INTO nvr_eventi (cam_id, ts, entity_id, stato) VALUES (?,?,?,?)", righe);
    c.commit();
  } catch (const std::exception& e) {
    _log(std::string("eventi non salvati: ") + e.what());
  }
}

}  // namespace nvr

#include "autonomo/stati.h"

#include <array>
#include <string_view>

#include "core/testi.h"

namespace nvr::autonomo {

Json normalize_state(const Json& stato) {
  static constexpr std::array<std::string_view, 20> attivi = {
      "on",       "open",     "opened",  "aperto",   "aperta",    "true",    "1",
      "yes",      "si",       "sì",      "detected", "motion",    "home",    "occupied",
      "presente", "presenza", "playing", "unlocked", "movimento", "rilevato"};
  if (stato.is_boolean()) return stato.get<bool>() ? "on" : "off";
  if (stato.is_number()) return stato.get<double>() != 0.0 ? "on" : "off";
  if (stato.is_null()) return "off";
  if (!stato.is_string()) return stato.dump();
  const std::string testo = spoglia_spazi_e_righe(minuscolo(stato.get<std::string>()));
  for (std::string_view a : attivi)
    if (testo == a) return "on";
  return testo;
}

Json StatiEntita::tutti() const {
  std::lock_guard l(m_);
  return stati_;
}

Esito<Json> StatiEntita::unisci(const Json& nuovi) {
  if (!nuovi.is_object()) return Errore{400, "Stati non validi"};
  std::lock_guard l(m_);
  for (const auto& [entita, valore] : nuovi.items()) {
    if (valore.is_null()) {
      stati_.erase(entita);
    } else {
      stati_[entita] = valore;
    }
  }
  return stati_;
}

}  // namespace nvr::autonomo

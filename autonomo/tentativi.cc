#include "autonomo/tentativi.h"

#include <algorithm>
#include <vector>

namespace nvr::autonomo {

double secondi_di_blocco(const Tentativi& t, double adesso) {
  return std::max(0.0, t.bloccato_fino - adesso);
}

DopoFallimento dopo_fallimento(const Tentativi& t, double adesso, const RegoleTentativi& regole) {
  DopoFallimento d;
  d.tentativi = t;
  Tentativi& n = d.tentativi;
  // A lock that has run out starts the count again: the next guesses earn a whole new lock only
  // after as many failures as the first time.
  if (adesso - t.ultimo > regole.secondi_oblio ||
      (t.bloccato_fino > 0 && adesso >= t.bloccato_fino))
    n = Tentativi{};
  n.falliti += 1;
  n.ultimo = adesso;
  if (n.falliti >= regole.falliti_per_blocco) {
    n.bloccato_fino = adesso + regole.secondi_blocco;
    return d;
  }
  d.attesa = std::min(regole.attesa_massima, n.falliti * regole.attesa_per_fallito);
  return d;
}

bool da_ricordare(const Tentativi& t, double adesso, const RegoleTentativi& regole) {
  return adesso < t.bloccato_fino || adesso - t.ultimo <= regole.secondi_oblio;
}

void pota_tentativi(std::map<std::string, Tentativi>& tabella, double adesso,
                    const RegoleTentativi& regole) {
  if (tabella.size() <= regole.indirizzi_massimi) return;
  std::erase_if(tabella,
                [&](const auto& voce) { return !da_ricordare(voce.second, adesso, regole); });
  if (tabella.size() <= regole.indirizzi_massimi) return;
  std::vector<std::pair<double, std::string>> per_eta;
  for (const auto& [indirizzo, t] : tabella) per_eta.emplace_back(t.ultimo, indirizzo);
  const std::size_t di_troppo = tabella.size() - regole.indirizzi_massimi;
  std::nth_element(per_eta.begin(), per_eta.begin() + static_cast<std::ptrdiff_t>(di_troppo),
                   per_eta.end());
  for (std::size_t i = 0; i < di_troppo; ++i) tabella.erase(per_eta[i].second);
}

}  // namespace nvr::autonomo

#include "engine/anteprime_piano.h"

#include <algorithm>
#include <cmath>

namespace nvr {

std::optional<std::size_t> segmento_per(const std::vector<SegmentoElencato>& segmenti, double t) {
  std::optional<std::size_t> vicino;
  double distanza = kVicinanzaAnteprima;
  for (std::size_t i = 0; i < segmenti.size(); ++i) {
    const SegmentoElencato& s = segmenti[i];
    // Names are truncated to the second, so neighbours may overlap a little: the later one
    // holds the moment.
    if (s.inizio <= t && t <= s.fine) {
      vicino = i;
      distanza = -1;
      continue;
    }
    if (distanza < 0) continue;
    const double d = std::min(std::abs(t - s.inizio), std::abs(t - s.fine));
    if (d < distanza || (d == distanza && !vicino)) {
      vicino = i;
      distanza = d;
    }
  }
  return vicino;
}

std::string nome_anteprima(std::int64_t id, std::int64_t millisecondi) {
  return std::to_string(id) + "_" + std::to_string(millisecondi) + ".jpg";
}

std::optional<std::int64_t> id_di_anteprima(const std::string& nome) {
  const std::size_t trattino = nome.find('_');
  if (trattino == 0 || trattino == std::string::npos || trattino > 18 || !nome.ends_with(".jpg"))
    return std::nullopt;
  const std::string id = nome.substr(0, trattino);
  const std::string ms = nome.substr(trattino + 1, nome.size() - 4 - trattino - 1);
  auto cifre = [](const std::string& s) {
    return !s.empty() && s.size() <= 18 && s.find_first_not_of("0123456789") == std::string::npos;
  };
  if (!cifre(id) || !cifre(ms)) return std::nullopt;
  return std::stoll(id);
}

std::vector<std::string> da_togliere(const std::vector<VoceCache>& voci,
                                     const std::set<std::int64_t>& vivi, std::uint64_t massimo,
                                     double adesso) {
  std::vector<std::string> via;
  std::vector<const VoceCache*> restano;
  std::uint64_t totale = 0;
  for (const VoceCache& v : voci) {
    const std::optional<std::int64_t> id = id_di_anteprima(v.nome);
    if (!id) {
      if (adesso - v.mtime > kVecchiaiaTemporanei) via.push_back(v.nome);
      continue;
    }
    if (!vivi.count(*id)) {
      via.push_back(v.nome);
      continue;
    }
    restano.push_back(&v);
    totale += v.byte;
  }
  std::sort(restano.begin(), restano.end(), [](const VoceCache* a, const VoceCache* b) {
    return a->mtime != b->mtime ? a->mtime < b->mtime : a->nome < b->nome;
  });
  for (const VoceCache* v : restano) {
    if (totale <= massimo) break;
    via.push_back(v->nome);
    totale -= v->byte;
  }
  return via;
}

}  // namespace nvr

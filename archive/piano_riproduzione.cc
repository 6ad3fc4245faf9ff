#include "archive/piano_riproduzione.h"

#include <algorithm>
#include <cmath>

namespace nvr {

double avvio(const SegmentoPiano& s) {
  if (!s.durata) return s.riga.inizio;
  const double dal_fondo = s.riga.fine - *s.durata;
  // Outside this window the end time is not the moment the last frame was written (a file
  // touched later, a clock step): the truncated name is then the better guess.
  if (dal_fondo >= s.riga.inizio - 0.25 && dal_fondo <= s.riga.inizio + 1.25) return dal_fondo;
  return s.riga.inizio;
}

bool uniti(const SegmentoElencato& prima, const SegmentoElencato& dopo) {
  return dopo.inizio - prima.fine <= kMassimoSalto;
}

std::optional<SceltaSegmenti> scegli_segmenti(const std::vector<SegmentoPiano>& s, double da,
                                              double a) {
  std::size_t primo = 0;
  while (primo < s.size() && s[primo].riga.fine <= da) ++primo;
  if (primo == s.size() || s[primo].riga.inizio >= a) return std::nullopt;
  std::size_t oltre = primo + 1;
  while (oltre < s.size() && s[oltre].riga.inizio < a) ++oltre;
  return SceltaSegmenti{primo, oltre};
}

double fine_predefinita(const std::vector<SegmentoPiano>& s, std::size_t primo,
                        double fine_giorno) {
  std::size_t ultimo = primo;
  while (ultimo + 1 < s.size() && uniti(s[ultimo].riga, s[ultimo + 1].riga)) ++ultimo;
  return std::min(s[ultimo].riga.fine, fine_giorno);
}

std::pair<double, double> giorno_di(double t, Zona z) {
  std::tm giorno = scomponi(t, z);
  giorno.tm_hour = giorno.tm_min = giorno.tm_sec = 0;
  giorno.tm_isdst = -1;
  std::tm dopo = giorno;
  dopo.tm_mday += 1;
  return {epoch_di(giorno, z), epoch_di(dopo, z)};
}

std::vector<Buco> buchi(const std::vector<SegmentoPiano>& s, SceltaSegmenti scelta) {
  std::vector<Buco> trovati;
  for (std::size_t k = scelta.primo; k + 1 < scelta.oltre; ++k)
    if (!uniti(s[k].riga, s[k + 1].riga)) trovati.emplace_back(s[k].riga.fine, avvio(s[k + 1]));
  return trovati;
}

std::string nome_esportazione(const std::string& nome_camera, double inizio, Zona z) {
  std::string nome;
  for (unsigned char c : nome_camera) {
    const bool tenuto = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (tenuto || c == '-' || c == '_')
      nome.push_back(static_cast<char>(c));
    else if (!nome.empty() && nome.back() != '_')
      nome.push_back('_');
  }
  while (!nome.empty() && nome.back() == '_') nome.pop_back();
  if (nome.empty()) nome = "telecamera";
  const std::tm t = scomponi(std::floor(inizio), z);
  return nome + "_" + formatta(t, "%Y-%m-%d_%H-%M-%S") + ".mp4";
}

}  // namespace nvr

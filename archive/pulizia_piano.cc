#include "archive/pulizia_piano.h"

#include <filesystem>

namespace nvr {

std::string radice_confronto(std::string radice_reale) {
  while (!radice_reale.empty() && radice_reale.back() == '/') radice_reale.pop_back();
  return radice_reale + "/";
}

bool dentro_archivio_per_spazio(const std::string& file, const std::string& radice,
                                const RisolviPercorso& reale) {
  return reale(file).starts_with(radice);
}

bool dentro_archivio_per_eta(const std::string& file, const std::string& radice,
                             const RisolviPercorso& reale) {
  return std::filesystem::path(file).lexically_normal().string().starts_with(radice) ||
         dentro_archivio_per_spazio(file, radice, reale);
}

std::vector<Verdetto> scegli_per_eta(const std::vector<SegmentoIndice>& segmenti,
                                     const std::vector<bool>& manca, double limite,
                                     const std::string& radice, const RisolviPercorso& reale) {
  std::vector<Verdetto> v(segmenti.size(), Verdetto::kResta);
  for (std::size_t i = 0; i < segmenti.size(); ++i) {
    if (manca[i])
      v[i] = Verdetto::kSoloRiga;
    else if (segmenti[i].inizio < limite &&
             dentro_archivio_per_eta(segmenti[i].file, radice, reale))
      v[i] = Verdetto::kPerEta;
  }
  return v;
}

std::vector<std::size_t> candidati_per_spazio(const std::vector<SegmentoIndice>& segmenti,
                                              const std::vector<Verdetto>& verdetti,
                                              const std::string& radice,
                                              const RisolviPercorso& reale) {
  std::vector<std::size_t> c;
  for (std::size_t i = 0; i < segmenti.size(); ++i)
    if (verdetti[i] == Verdetto::kResta &&
        dentro_archivio_per_spazio(segmenti[i].file, radice, reale))
      c.push_back(i);
  return c;
}

FrenoSpazio::FrenoSpazio(double min_gb, std::optional<double> libero_gb)
    : min_gb_(min_gb), libero_(libero_gb) {}

bool FrenoSpazio::altra() const { return libero_ && *libero_ < min_gb_ && vane_ < 3; }

void FrenoSpazio::misurato(std::optional<double> libero_gb) {
  const double prima = libero_.value_or(0);
  vane_ = libero_gb && *libero_gb <= prima ? vane_ + 1 : 0;
  libero_ = libero_gb;
}

}  // namespace nvr

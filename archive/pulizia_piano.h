// Retention's choices, apart from the code that deletes: which segments go for age, which are
// candidates for space and in what order, what counts as inside the archive, and when the space
// phase stops. Pure functions of the index rows, the cut-off and the space readings; the only
// outside input is `reale`, which the caller gives to resolve a path's links.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace nvr {

struct SegmentoIndice {
  std::int64_t id = 0;
  std::string file;
  double inizio = 0.0;
};

// A path with its links resolved (see percorso_reale_o_assoluto in core/percorsi.h).
using RisolviPercorso = std::function<std::string(const std::string&)>;

// The archive root as the rules below compare it: `radice_reale` (the root's real path) with
// exactly one trailing "/".
std::string radice_confronto(std::string radice_reale);

// Whether `file` counts as the archive's own for deletion by age: its real path lies under
// `radice` (from radice_confronto), or the path as written does once its ".." are resolved
// lexically (a link inside the archive is the archive's own even when it points elsewhere;
// "ROOT/../x" is not inside). For space only the real path counts.
bool dentro_archivio_per_eta(const std::string& file, const std::string& radice,
                             const RisolviPercorso& reale);
bool dentro_archivio_per_spazio(const std::string& file, const std::string& radice,
                                const RisolviPercorso& reale);

enum class Verdetto {
  kResta,     // kept (new enough, or outside the archive)
  kSoloRiga,  // the file is already gone: only its row goes
  kPerEta,    // started before the cut-off: file and row go
};

// One verdict per row of `segmenti` (manca[i]: the file of segmenti[i] is missing). A segment that
// starts exactly at `limite` stays.
std::vector<Verdetto> scegli_per_eta(const std::vector<SegmentoIndice>& segmenti,
                                     const std::vector<bool>& manca, double limite,
                                     const std::string& radice, const RisolviPercorso& reale);

// The positions in `segmenti` (ordered by start) that may go for space, oldest first: those kept
// by `verdetti` whose real path lies inside the archive.
std::vector<std::size_t> candidati_per_spazio(const std::vector<SegmentoIndice>& segmenti,
                                              const std::vector<Verdetto>& verdetti,
                                              const std::string& radice,
                                              const RisolviPercorso& reale);

// The space phase's stop rule, fed the reading before the first deletion and after each one.
// Another deletion is due while the last reading succeeded, it is below `min_gb`, and fewer than
// three deletions in a row freed nothing measurable: past that the space is held by something
// else (or reported late), and going on would only empty the archive.
class FrenoSpazio {
 public:
  FrenoSpazio(double min_gb, std::optional<double> libero_gb);
  bool altra() const;
  void misurato(std::optional<double> libero_gb);  // the reading after a deletion

 private:
  double min_gb_;
  std::optional<double> libero_;
  int vane_ = 0;
};

}  // namespace nvr

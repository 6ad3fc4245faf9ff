// The timeline pictures' decisions, apart from the code that makes and deletes them: which
// segment pictures a moment, how a picture is named, and what the cache hygiene deletes.
// Everything here is pure.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "archive/elenchi.h"

namespace nvr {

// How far from a moment a segment may lie and still picture it, seconds.
inline constexpr double kVicinanzaAnteprima = 60.0;
// The cache's size cap.
inline constexpr std::uint64_t kMassimoAnteprime = 64ull * 1024 * 1024;
// A file of the cache that is not a picture (a maker's temporary file, or one a crash left)
// is deleted once it is this old: no maker runs that long.
inline constexpr double kVecchiaiaTemporanei = 120.0;

// Of `segmenti` (by start, as giornata_camera lists them), the index of the one that pictures
// moment `t`: the last one holding it (inizio <= t <= fine), else the one whose nearer end is
// nearest `t`, when within kVicinanzaAnteprima (the earlier one on a tie); absent when none.
std::optional<std::size_t> segmento_per(const std::vector<SegmentoElencato>& segmenti, double t);

// The cache's name of the picture of segment `id` at key-frame time `millisecondi` from the
// segment's first presented frame: "<id>_<ms>.jpg".
std::string nome_anteprima(std::int64_t id, std::int64_t millisecondi);
// The segment id of a picture's name; absent for any other name (temporary files included).
std::optional<std::int64_t> id_di_anteprima(const std::string& nome);

struct VoceCache {
  std::string nome;  // file name in the cache folder
  std::uint64_t byte = 0;
  double mtime = 0.0;  // when it was made
};

// What the hygiene deletes, by name: pictures of segments not in `vivi`; other files older
// than kVecchiaiaTemporanei at `adesso`; then, while the pictures left exceed `massimo` bytes,
// the oldest ones (by mtime, then name).
std::vector<std::string> da_togliere(const std::vector<VoceCache>& voci,
                                     const std::set<std::int64_t>& vivi, std::uint64_t massimo,
                                     double adesso);

}  // namespace nvr

// Playback planning over one camera's listed segments: where each segment starts on the wall
// clock, which follow each other without a break, where a stream starts and ends by default,
// the gaps inside a span and the name of an exported file. Pure: no disk, no database, no clock.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "archive/elenchi.h"
#include "core/tempo.h"

namespace nvr {

// Two segments whose rows leave at most this many seconds between the end of one and the start
// of the next belong to the same run (when their sample entries match too).
inline constexpr double kMassimoSalto = 1.0;

// A listed segment and, once its track was read, the duration of the track in seconds.
struct SegmentoPiano {
  SegmentoElencato riga;
  std::optional<double> durata;
};

// The wall-clock time of a segment's media time 0: fine - durata when that lies within
// [inizio - 0.25, inizio + 1.25] (the row's end is precise, its start is truncated to the
// second), otherwise, or with no duration, inizio.
double avvio(const SegmentoPiano& s);

// Whether `dopo` follows `prima` in the same run as far as the rows tell (the caller compares the
// sample entries once it has read them): inizio(dopo) - fine(prima) <= kMassimoSalto.
bool uniti(const SegmentoElencato& prima, const SegmentoElencato& dopo);

// The segments of a span [da, a) in `s` (ordered by inizio): from the one holding `da`
// (inizio <= da < fine) or, when `da` falls in a gap, the first one starting after it, up to the
// last one starting before `a`. Indexes [primo, oltre); absent when there is none.
struct SceltaSegmenti {
  std::size_t primo = 0;
  std::size_t oltre = 0;
};
std::optional<SceltaSegmenti> scegli_segmenti(const std::vector<SegmentoPiano>& s, double da,
                                              double a);

// The default end of a stream starting in segment `primo`: the end of the run that holds it,
// not past `fine_giorno` (the end of the local day of the requested start).
double fine_predefinita(const std::vector<SegmentoPiano>& s, std::size_t primo, double fine_giorno);

// The local day holding `t` in zone `z` (machine local time for nullptr): [midnight, next
// midnight), so 23 or 25 hours on the days the clock changes.
std::pair<double, double> giorno_di(double t, Zona z);

// The wall-clock gaps [fine, avvio] between the segments of `scelta` that do not follow each
// other (by uniti), in order.
using Buco = std::pair<double, double>;
std::vector<Buco> buchi(const std::vector<SegmentoPiano>& s, SceltaSegmenti scelta);

// "<camera>_<YYYY-MM-DD_HH-MM-SS>.mp4": the camera's name keeping ASCII letters, digits, '-' and
// '_' (any other run of characters becomes one '_'; "telecamera" when nothing is left), then
// `inizio` (truncated to the second) as local time in `z`.
std::string nome_esportazione(const std::string& nome_camera, double inizio, Zona z);

}  // namespace nvr

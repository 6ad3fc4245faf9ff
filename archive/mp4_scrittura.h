// Writing MP4 for playback and export: a fragmented stream (an initialisation segment, then
// one fragment per group of samples) and the head of a progressive file (ftyp + moov + the mdat
// header). Pure: bytes in memory, no file access; the caller sends the samples' own bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "archive/mp4_traccia.h"

namespace nvr {

// A run of samples of one segment, in decode order, as they go into an export.
struct Tratto {
  std::span<const Campione> campioni;
};

// ftyp (iso5) + moov of a fragmented stream of one video track (track 1) whose samples are
// described by `voce` (a whole stsd box, copied as it is) at `scala` units per second, of
// `larghezza` x `altezza` pixels; mvex/trex present, no samples in moov.
std::string inizio_frammentato(const std::string& voce, std::uint32_t scala, int larghezza,
                               int altezza);

// moof + the mdat header for samples `c` of track 1 (decode order; each sample's duration,
// size, key flag and signed composition offset as given), the first decoded at `tfdt` (track
// units, continuing the stream's decode times), sequence number `n` (from 1). The caller sends
// the samples' bytes right after, in order (the mdat header counts exactly their sizes).
std::string testa_frammento(std::span<const Campione> c, std::uint64_t tfdt, std::uint32_t n);

// ftyp (isom) + moov + the mdat header of a progressive file made of `tratti` one after the
// other (empty ones are skipped): decode times continue from one sample to the next by each
// sample's duration, composition offsets are kept (ctts version 1 when one is negative), one
// chunk per run with co64 offsets that hold when the samples' bytes follow the answer in the
// same order. `creazione` = wall-clock start (Unix seconds) for mvhd/tkhd/mdhd. The answer
// depends only on its arguments (same samples, same bytes).
std::string testa_esportazione(const std::vector<Tratto>& tratti, const std::string& voce,
                               std::uint32_t scala, int larghezza, int altezza, double creazione);

}  // namespace nvr

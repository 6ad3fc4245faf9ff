// Writing MP4 for playback and export: a fragmented stream (an initialisation segment, then
// one fragment per group of samples) and the head of a progressive file (ftyp + moov + the mdat
// header). Pure: bytes in memory, no file access; the caller sends the samples' own bytes.
#pragma once

#include <span>
#include <vector>

#include "archive/mp4_traccia.h"

namespace nvr {

// A run of samples of one segment, in decode order, as they go into an export.
struct Tratto {
  std::span<const Campione> campioni;
};

}  // namespace nvr

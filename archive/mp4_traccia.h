// The video track of a finished segment as the recorder leaves it (ffmpeg's mp4 muxer, moov
// after mdat): where each sample lies in the file and when it is decoded and shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "archive/mp4_box.h"

namespace nvr {

struct Campione {
  std::uint64_t posizione = 0;  // byte offset of the sample in its file
  std::uint32_t dimensione = 0;
  std::int64_t dts = 0;      // decode time, track timescale, first sample 0
  std::int32_t cts = 0;      // presentation - decode, shifted by the edit list so that
                             // the first presented frame is at 0 (may be negative)
  std::uint32_t durata = 0;  // track timescale
  bool chiave = false;       // sync sample
};

struct Traccia {
  std::uint32_t scala = 0;         // units per second (mdhd)
  std::string voce;                // the whole stsd box, header included
  InfoVideo info;                  // codec string, width, height
  std::vector<Campione> campioni;  // decode order
  std::int64_t durata = 0;         // sum of sample durations
};

}  // namespace nvr

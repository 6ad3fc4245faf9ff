// The video track of a finished segment as the recorder leaves it (ffmpeg's mp4 muxer, moov
// after mdat): where each sample lies in the file and when it is decoded and shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "archive/mp4_box.h"
#include "core/esito.h"

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

// More samples than this in one segment (a day at 48 frames per second) are taken for garbage.
inline constexpr std::uint32_t kMassimiCampioni = 1u << 22;

// The first video track of the finished MP4 file `file`, moov anywhere at top level. Reads only
// the top-level box headers and moov (pread, a few calls; never the media data); blocks on the
// disk for as long as those reads take. Errors, as "File video illeggibile: ..." in plain
// Italian: the file cannot be opened or read, has no moov or no video track, or its tables
// disagree (counts, chunks, sizes, a sample past the end of the file).
Esito<Traccia> leggi_traccia(const std::string& file);

// The same from the whole moov box (header included), pure; sample offsets as written, not
// checked against any file.
Esito<Traccia> traccia_da_moov(std::string_view moov);

// Index of the last key frame whose presentation time (dts + cts) is <= `quando` (track units);
// 0 when there is none (also for an empty track).
std::size_t chiave_prima_di(const Traccia& t, std::int64_t quando);

}  // namespace nvr

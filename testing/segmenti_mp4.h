// Segments as the recorder leaves them (ffmpeg's segment muxer to mp4, timestamps reset in each
// segment, moov at the end), encoded from ffmpeg's test pattern, and what ffmpeg sees in a file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nvr::testing {

enum class BFrame { kNo, kSi };

// The files, in order, of 7 s of a 320x240 25 fps test pattern (H.264, a key frame every 25
// frames, two B-frames between references with BFrame::kSi) cut into 2 s segments: three of 50
// frames and a last one of 25. Made once (about a second of ffmpeg) into the build tree's
// prova_mp4/ and then reused; empty, with a test failure, when ffmpeg fails.
const std::vector<std::string>& segmenti_di_prova(BFrame b);

struct PacchettoVisto {
  std::int64_t pts = 0, dts = 0, durata = 0, dimensione = 0, posizione = 0;
  bool chiave = false;
};
struct Mp4Visto {
  std::vector<PacchettoVisto> pacchetti;  // of the first video stream, in file order
  double durata = 0;                      // of the file, seconds
  std::string creazione;                  // creation_time tag
  std::string errori;                     // of a full decode ("" when clean)
};
// What ffprobe reads in `file` and, with Decodifica::kSi, what a full decode by ffmpeg
// complains about.
enum class Decodifica { kNo, kSi };
Mp4Visto guarda_mp4(const std::string& file, Decodifica d = Decodifica::kSi);

}  // namespace nvr::testing

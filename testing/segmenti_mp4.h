// Segments as the recorder leaves them (ffmpeg's segment muxer to mp4, timestamps reset in each
// segment, moov at the end), encoded from ffmpeg's test pattern, for the playback code's tests.
#pragma once

#include <string>
#include <vector>

namespace nvr::testing {

enum class BFrame { kNo, kSi };

// The files, in order, of 7 s of a 320x240 25 fps test pattern (H.264, a key frame every 25
// frames, two B-frames between references with BFrame::kSi) cut into 2 s segments: three of 50
// frames and a last one of 25. Made once (about a second of ffmpeg) into the build tree's
// prova_mp4/ and then reused; empty, with a test failure, when ffmpeg fails.
const std::vector<std::string>& segmenti_di_prova(BFrame b);

// The standard output of the shell command `comando` (its standard error is left alone).
std::string uscita_comando(const std::string& comando);

}  // namespace nvr::testing

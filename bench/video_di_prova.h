// What ffprobe and ffmpeg read in a recorded segment: the video stream's size and rate, each
// frame's time stamp and keyframe flag, and a fingerprint of each decoded picture.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace nvr::testing {

struct Fotogramma {
  double pts = 0;  // seconds
  bool chiave = false;
};

struct VideoLetto {
  int larghezza = 0;
  int altezza = 0;
  double frequenza = 0;                // the stream's r_frame_rate, frames per second
  std::vector<Fotogramma> fotogrammi;  // the first video stream's packets, in file order
};

// Reads the first video stream of `percorso` with ffprobe (up to 60 s). Nothing, with the reason
// in `errore`, when ffprobe fails or finds no video stream.
std::optional<VideoLetto> leggi_video(const std::string& percorso, std::string* errore);

// The MD5 of every picture ffmpeg decodes from `percorso`, in presentation order (up to
// `timeout` s; decoding 1080p costs a few ms a frame). Pictures that cannot be decoded (before
// the first keyframe) are not listed. Nothing, with the reason in `errore`, when ffmpeg fails.
std::optional<std::vector<std::string>> impronte_fotogrammi(const std::string& percorso,
                                                            std::string* errore,
                                                            double timeout = 300);

}  // namespace nvr::testing

#include "bench/video_di_prova.h"

#include <cstdlib>
#include <sstream>

#include "storage/comando.h"

namespace nvr::testing {
namespace {

std::vector<std::string> campi(const std::string& riga) {
  std::vector<std::string> c;
  std::stringstream ss(riga);
  for (std::string campo; std::getline(ss, campo, ',');) c.push_back(campo);
  return c;
}

// "30/1" or "30000/1001"; 0 for anything else.
double frazione(const std::string& testo) {
  const auto barra = testo.find('/');
  if (barra == std::string::npos) return std::atof(testo.c_str());
  const double den = std::atof(testo.c_str() + barra + 1);
  return den == 0 ? 0 : std::atof(testo.substr(0, barra).c_str()) / den;
}

}  // namespace

std::optional<VideoLetto> leggi_video(const std::string& percorso, std::string* errore) {
  const RisultatoComando r =
      _comando({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                "stream=width,height,r_frame_rate:packet=pts_time,flags", "-of", "csv", percorso},
               60);
  if (r.codice != 0) {
    *errore = "ffprobe " + percorso + ": " + r.err;
    return std::nullopt;
  }
  VideoLetto v;
  std::stringstream ss(r.out);
  bool flusso = false;
  for (std::string riga; std::getline(ss, riga);) {
    const auto c = campi(riga);
    if (c.size() >= 3 && c[0] == "packet") {
      v.fotogrammi.push_back({std::atof(c[1].c_str()), c[2].find('K') != std::string::npos});
    } else if (c.size() >= 4 && c[0] == "stream") {
      v.larghezza = std::atoi(c[1].c_str());
      v.altezza = std::atoi(c[2].c_str());
      v.frequenza = frazione(c[3]);
      flusso = true;
    }
  }
  if (!flusso) {
    *errore = percorso + ": nessun flusso video";
    return std::nullopt;
  }
  return v;
}

std::optional<std::vector<std::string>> impronte_fotogrammi(const std::string& percorso,
                                                            std::string* errore, double timeout) {
  const RisultatoComando r = _comando(
      {"ffmpeg", "-nostdin", "-v", "error", "-i", percorso, "-map", "0:v:0", "-f", "framemd5", "-"},
      timeout);
  if (r.codice != 0) {
    *errore = "ffmpeg framemd5 " + percorso + ": " + r.err;
    return std::nullopt;
  }
  // Lines "stream, dts, pts, duration, size, md5"; comments start with '#'.
  std::vector<std::string> impronte;
  std::stringstream ss(r.out);
  for (std::string riga; std::getline(ss, riga);) {
    if (riga.empty() || riga[0] == '#') continue;
    const auto virgola = riga.rfind(',');
    if (virgola == std::string::npos) continue;
    std::string md5 = riga.substr(virgola + 1);
    while (!md5.empty() && md5.front() == ' ') md5.erase(md5.begin());
    impronte.push_back(md5);
  }
  return impronte;
}

}  // namespace nvr::testing

#include "engine/vivo_ffmpeg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "engine/motore.h"
#include "engine/registratori.h"

namespace nvr {
namespace {

// The arguments joined by spaces, as pgrep -f matches them.
std::string riga(const std::vector<std::string>& a) {
  std::string s;
  for (const auto& x : a) s += (s.empty() ? "" : " ") + x;
  return s;
}

bool corrisponde(const char* modello, const std::vector<std::string>& a) {
  return std::regex_search(riga(a), std::regex(modello, std::regex::extended));
}

// The start-up sweeps must each find their own processes and never the other kind.
TEST(VivoFfmpeg, RigheDiComandoEModelli) {
  const std::string url = "rtsp://u:p@10.0.0.5:554/Streaming/101";
  for (int major : {4, 5, 6}) {
    auto vivo = argomenti_vivo(url, major);
    EXPECT_TRUE(corrisponde(kModelloVivi, vivo)) << riga(vivo);
    EXPECT_FALSE(corrisponde(kModelloOrfani, vivo)) << riga(vivo);
    auto reg = argomenti_ffmpeg(url, 300, "/mnt/a/Cam/in_corso", major);
    EXPECT_FALSE(corrisponde(kModelloVivi, reg)) << riga(reg);
    EXPECT_TRUE(corrisponde(kModelloOrfani, reg)) << riga(reg);
    EXPECT_FALSE(corrisponde(kModelloVivi, argomenti_foto_flusso(url, major)));
    const char* timeout = major < 5 ? "-stimeout" : "-timeout";
    EXPECT_NE(std::find(vivo.begin(), vivo.end(), timeout), vivo.end());
  }
}

TEST(VivoFfmpeg, Guasti) {
  struct Caso {
    const char* err;
    int codice;
    double secondi;
    Guasto atteso;
  } casi[] = {
      {"[tcp @ 0x1] Connection to tcp://127.0.0.1:1?timeout=5000000 failed: Connection refused\n",
       1, 0.1, Guasto::rifiutata},
      {"[rtsp @ 0x1] method DESCRIBE failed: 401 Unauthorized\nrtsp://a:b@h/x: Server returned "
       "401 Unauthorized (authorization failed)\n",
       1, 0.3, Guasto::credenziali},
      {"[rtsp @ 0x1] method DESCRIBE failed: 404 Not Found\n", 1, 0.2, Guasto::percorso},
      {"", 124, 6.0, Guasto::tempo_scaduto},
      {"rtsp://127.0.0.1:9/cam: Invalid data found when processing input\n", 1, 5.1,
       Guasto::tempo_scaduto},
      {"rtsp://127.0.0.1:9/cam: Invalid data found when processing input\n", 1, 0.2,
       Guasto::non_video},
      {"[tcp @ 0x1] Failed to resolve hostname nohost.invalid: Name or service not known\n", 1, 0.1,
       Guasto::irraggiungibile},
      {"Stream map '0:v:0' matches no streams.\n", 1, 1.0, Guasto::non_video},
      {"Something else broke\n", 1, 1.0, Guasto::altro},
  };
  for (const Caso& c : casi)
    EXPECT_EQ(classifica_guasto(c.err, c.codice, c.secondi), c.atteso) << c.err;
  const std::string url = "rtsp://admin:S3gr/et%21@cam.lan/x";
  std::string m = motivo_guasto("rtsp://admin:S3gr/et%21@cam.lan/x: boom S3gr/et!\n", 1, 1, url);
  EXPECT_EQ(m.find("S3gr"), std::string::npos) << m;
  EXPECT_NE(m.find("boom"), std::string::npos) << m;
  EXPECT_EQ(motivo_guasto("", 1, 1, url),
            "Impossibile leggere il flusso: ffmpeg terminato (codice 1)");
}

TEST(VivoFfmpeg, SenzaPassword) {
  struct Caso {
    const char* testo;
    const char* url;
    const char* atteso;
  } casi[] = {
      {"rtsp://u:p@h:554/x: Connection refused", "", "rtsp://u:***@h:554/x: Connection refused"},
      {"'rtsp://u:pa:ss@h' and http://x:y@z", "", "'rtsp://u:***@h' and http://x:***@z"},
      {"rtsp://solo@h/x rtsp://h/x?a=b@c", "", "rtsp://solo@h/x rtsp://h/x?a=b@c"},
      {"auth failed for segreto%", "rtsp://u:segreto%25@h/", "auth failed for ***"},
      {"Connection to tcp://h:554 failed", "rtsp://u:p@h/", "Connection to tcp://h:554 failed"},
  };
  for (const Caso& c : casi) EXPECT_EQ(senza_password(c.testo, c.url), c.atteso);
}

TEST(VivoFfmpeg, InfoDaStderr) {
  auto info = info_da_stderr(
      "Input #0, rtsp, from 'rtsp://127.0.0.1:8554/cam':\n"
      "  Duration: N/A, start: 0.080000, bitrate: N/A\n"
      "  Stream #0:0: Video: h264 (High) (avc1 / 0x31637661), yuv420p(progressive), 640x360 "
      "[SAR 1:1 DAR 16:9], 25 fps, 25 tbr, 90k tbn\n"
      "Stream mapping:\n  Stream #0:0 -> #0:0 (h264 (native) -> mjpeg (native))\n"
      "  Stream #0:0: Video: mjpeg, yuvj420p(pc, progressive), 320x240, q=2-31, 1 fps\n");
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->codec + " " + std::to_string(info->larghezza) + "x" +
                std::to_string(info->altezza) + " " + std::to_string(info->fps),
            "h264 640x360 25.000000");
  EXPECT_FALSE(info_da_stderr("  Stream #0:0: Audio: aac, 8000 Hz\n").has_value());
}

}  // namespace
}  // namespace nvr

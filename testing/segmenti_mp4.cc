#include "testing/segmenti_mp4.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "core/json.h"

namespace nvr::testing {

namespace fs = std::filesystem;

namespace {

std::string uscita_comando(const std::string& comando) {
  std::string uscita;
  FILE* p = ::popen(comando.c_str(), "r");
  if (!p) return uscita;
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) uscita.append(buf, n);
  ::pclose(p);
  return uscita;
}

}  // namespace

const std::vector<std::string>& segmenti_di_prova(BFrame b) {
  static std::map<BFrame, std::vector<std::string>> fatti;
  auto [voce, nuova] = fatti.try_emplace(b);
  std::vector<std::string>& file = voce->second;
  if (!nuova) return file;
  // Kept in the build tree: every test runs in a process of its own, and ffmpeg takes a second.
  // Made aside and renamed into place, so that tests running side by side see all or nothing.
  const fs::path cartella = fs::path(NVR_BINARI) / "prova_mp4" / (b == BFrame::kSi ? "bf2" : "bf0");
  std::error_code ec;
  if (!fs::exists(cartella / "003.mp4", ec)) {
    fs::create_directories(cartella.parent_path(), ec);
    std::string modello = (cartella.parent_path() / "fare_XXXXXX").string();
    const char* accanto = ::mkdtemp(modello.data());
    EXPECT_NE(accanto, nullptr);
    if (!accanto) return file;
    const std::string comando =
        "ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi "
        "-i testsrc2=size=320x240:rate=25 -t 7 -c:v libx264 -g 25 -bf " +
        std::string(b == BFrame::kSi ? "2" : "0") +
        " -map 0:v:0 -an -f segment -segment_time 2 -segment_format mp4 -reset_timestamps 1 " +
        std::string(accanto) + "/%03d.mp4";
    EXPECT_EQ(std::system(comando.c_str()), 0) << comando;
    fs::rename(accanto, cartella, ec);
    fs::remove_all(accanto, ec);  // another process was first
  }
  for (const auto& e : fs::directory_iterator(cartella, ec)) file.push_back(e.path().string());
  std::sort(file.begin(), file.end());
  EXPECT_EQ(file.size(), 4u) << cartella;
  return file;
}

Mp4Visto guarda_mp4(const std::string& file, Decodifica d) {
  Mp4Visto v;
  if (d == Decodifica::kSi)
    v.errori = uscita_comando("ffmpeg -nostdin -v error -i " + file + " -f null - 2>&1");
  const Json j = Json::parse(
      uscita_comando("ffprobe -v error -select_streams v:0 -of json -show_entries packet=pts,dts,"
                     "duration,size,pos,flags:format=duration:format_tags=creation_time " +
                     file),
      nullptr, false);
  if (j.is_discarded()) return v;
  for (const Json& p : j.value("packets", Json::array()))
    v.pacchetti.push_back({p.value("pts", -1ll), p.value("dts", -1ll), p.value("duration", -1ll),
                           std::stoll(p.value("size", "-1")), std::stoll(p.value("pos", "-1")),
                           p.value("flags", "").starts_with("K")});
  const Json& formato = j.value("format", Json::object());
  v.durata = std::stod(formato.value("duration", "0"));
  v.creazione = formato.value("tags", Json::object()).value("creation_time", "");
  return v;
}

}  // namespace nvr::testing

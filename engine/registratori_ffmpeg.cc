// The ffmpeg side of the recorders: which ffmpeg is installed, its command line, its log file.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>

#include "core/condiviso.h"
#include "core/processo.h"
#include "core/testi.h"
#include "engine/registratori.h"
#include "storage/comando.h"

namespace nvr {

namespace fs = std::filesystem;

namespace {

constexpr int kSegmentoPredefinito = 300;
constexpr std::size_t kCodaCaratteri = 4000;
constexpr std::size_t kRigaCaratteri = 200;
constexpr std::string_view kSostituto = "\xEF\xBF\xBD";  // U+FFFD

bool continuazione(unsigned char c) { return (c & 0xC0) == 0x80; }

// Length of the well-formed UTF-8 sequence at the start of `s`, 0 when it is not one.
std::size_t sequenza_utf8(std::string_view s) {
  auto c = static_cast<unsigned char>(s[0]);
  if (c < 0x80) return 1;
  std::size_t n;
  unsigned char min2 = 0x80, max2 = 0xBF;  // bounds of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) min2 = 0xA0;  // overlong
    if (c == 0xED) max2 = 0x9F;  // surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) min2 = 0x90;  // overlong
    if (c == 0xF4) max2 = 0x8F;  // beyond U+10FFFF
  } else {
    return 0;
  }
  if (s.size() < n) return 0;
  auto c2 = static_cast<unsigned char>(s[1]);
  if (c2 < min2 || c2 > max2) return 0;
  for (std::size_t i = 2; i < n; ++i)
    if (!continuazione(static_cast<unsigned char>(s[i]))) return 0;
  return n;
}

// `s` with every byte that is not part of well-formed UTF-8 replaced by U+FFFD.
std::string utf8_valido(std::string_view s) {
  std::string fuori;
  fuori.reserve(s.size());
  while (!s.empty()) {
    std::size_t n = sequenza_utf8(s);
    if (n == 0) {
      fuori.append(kSostituto);
      n = 1;
    } else {
      fuori.append(s.substr(0, n));
    }
    s.remove_prefix(n);
  }
  return fuori;
}

// The first `n` characters of valid UTF-8 text `s`.
std::string_view primi_caratteri(std::string_view s, std::size_t n) {
  std::size_t i = 0;
  for (std::size_t contati = 0; i < s.size(); ++i) {
    if (continuazione(static_cast<unsigned char>(s[i]))) continue;
    if (contati++ == n) break;
  }
  return s.substr(0, i);
}

// The last `n` characters of valid UTF-8 text `s`.
std::string_view ultimi_caratteri(std::string_view s, std::size_t n) {
  std::size_t i = s.size();
  for (std::size_t contati = 0; i > 0 && contati < n;) {
    --i;
    if (!continuazione(static_cast<unsigned char>(s[i]))) ++contati;
  }
  return s.substr(i);
}

std::string_view senza_spazi(std::string_view s) {
  constexpr std::string_view bianchi = " \t\n\r\f\v";
  auto a = s.find_first_not_of(bianchi);
  if (a == std::string_view::npos) return {};
  return s.substr(a, s.find_last_not_of(bianchi) - a + 1);
}

// The last `byte` bytes of file `percorso`; nothing when it cannot be read.
std::optional<std::string> coda_file(const std::string& percorso, std::size_t byte) {
  // Not through a link: what it shows ends up in the status page.
  int fd = ::open(percorso.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return std::nullopt;
  std::string dati;
  struct stat st;
  bool ok = ::fstat(fd, &st) == 0;
  if (ok) {
    off_t inizio = st.st_size > static_cast<off_t>(byte) ? st.st_size - byte : 0;
    char buf[8192];
    ssize_t letti = 0;
    while (dati.size() < byte &&
           (letti = ::pread(fd, buf, sizeof buf, inizio + static_cast<off_t>(dati.size()))) > 0)
      dati.append(buf, letti);
    ok = letti >= 0;
  }
  ::close(fd);
  if (!ok) return std::nullopt;
  return dati;
}

}  // namespace

bool ffmpeg_presente() { return programma_presente("ffmpeg"); }

int major_da_versione(const std::string& uscita) {
  // The first "ffmpeg version", blanks, an optional "n", digits and a dot.
  constexpr std::string_view marca = "ffmpeg version";
  auto cifra = [](char c) { return c >= '0' && c <= '9'; };
  for (auto p = uscita.find(marca); p != std::string::npos; p = uscita.find(marca, p + 1)) {
    std::size_t i = p + marca.size();
    std::size_t dopo_spazi = uscita.find_first_not_of(" \t\n\r\f\v", i);
    if (dopo_spazi == std::string::npos || dopo_spazi == i) continue;
    i = dopo_spazi;
    if (uscita[i] == 'n') ++i;
    std::size_t inizio = i;
    while (i < uscita.size() && cifra(uscita[i])) ++i;
    if (i == inizio || i == uscita.size() || uscita[i] != '.') continue;
    if (i - inizio > 9) return 5;  // not a version an int can hold
    return std::stoi(uscita.substr(inizio, i - inizio));
  }
  return 5;
}

namespace {
// The installed ffmpeg's major version, once asked; a race between two callers only asks twice.
Condiviso<std::optional<int>> _ffmpeg_info;
}  // namespace

int _ffmpeg_major() {
  if (auto noto = _ffmpeg_info.get()) return *noto;
  RisultatoComando r = _comando({"ffmpeg", "-version"}, 10);
  int major = major_da_versione(r.out);
  _ffmpeg_info.set(major);
  return major;
}

void dimentica_versione_ffmpeg() { _ffmpeg_info.set(std::nullopt); }

std::vector<std::string> argomenti_ffmpeg(const std::string& url, int segmento,
                                          const std::string& cartella, int major) {
  std::vector<std::string> a = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y"};
  if (minuscolo(url).starts_with("rtsp")) {
    // Over UDP a lossy network tears frames; the socket time-out lets a dead camera end the
    // recorder instead of leaving it waiting for ever.
    a.insert(a.end(), {"-rtsp_transport", "tcp", major < 5 ? "-stimeout" : "-timeout", "5000000"});
  }
  std::string durata = std::to_string(segmento != 0 ? segmento : kSegmentoPredefinito);
  a.insert(a.end(), {"-i", url, "-map", "0:v:0", "-c:v", "copy", "-an", "-f", "segment",
                     "-segment_time", durata, "-segment_format", "mp4", "-reset_timestamps", "1",
                     "-strftime", "1", (fs::path(cartella) / "%Y%m%d_%H%M%S.mp4").string()});
  return a;
}

std::string _log_ffmpeg(CamId cid) {
  const char* tmp = std::getenv("TMPDIR");
  fs::path cartella = fs::path(tmp && *tmp ? tmp : "/tmp") /
                      ("zuna_nvr_" + std::to_string(static_cast<long long>(::getuid())));
  std::error_code ec;
  fs::create_directories(cartella.parent_path(), ec);
  ::mkdir(cartella.c_str(), 0700);  // an existing folder is fine
  return (cartella / ("ffmpeg_" + std::to_string(cid) + ".log")).string();
}

std::string ultima_riga_di(std::string_view coda) {
  std::string testo = utf8_valido(coda);
  std::string_view resto = ultimi_caratteri(testo, kCodaCaratteri);
  while (!resto.empty()) {
    auto a_capo = resto.find_last_of("\r\n");
    std::string_view riga =
        senza_spazi(a_capo == std::string_view::npos ? resto : resto.substr(a_capo + 1));
    if (!riga.empty()) return std::string(primi_caratteri(riga, kRigaCaratteri));
    if (a_capo == std::string_view::npos) break;
    resto = resto.substr(0, a_capo);
  }
  return "";
}

std::string _ultima_riga_log(CamId cid) {
  // Four bytes per character at most, so this covers the last 4000 characters (a character
  // cut in two at the front of the window can only fall outside them).
  auto coda = coda_file(_log_ffmpeg(cid), kCodaCaratteri * 4);
  return coda ? ultima_riga_di(*coda) : "";
}

}  // namespace nvr

#include "web/invio_file.h"

#include <sys/stat.h>

#include <cctype>
#include <charconv>
#include <cstdio>
#include <ctime>

#include "core/testi.h"

namespace nvr {

namespace {

std::string esadecimale(std::uint64_t n) {
  char buf[32];
  auto [p, ec] = std::to_chars(buf, buf + sizeof buf, n, 16);
  return std::string(buf, p);
}

std::string etag_di(const InfoFile& info) {
  return "\"" + esadecimale(static_cast<std::uint64_t>(info.mtime_ns)) + "-" +
         esadecimale(static_cast<std::uint64_t>(info.dimensione)) + "-" + esadecimale(info.inode) +
         "\"";
}

std::string valore(const std::map<std::string, std::string>& h, const std::string& nome) {
  auto it = h.find(nome);
  return it == h.end() ? std::string() : it->second;
}

// Whether an If-None-Match list names this entity tag (weak comparison, "*" for any).
bool etag_tra(const std::string& elenco, const std::string& etag) {
  std::size_t i = 0;
  while (i <= elenco.size()) {
    std::size_t j = elenco.find(',', i);
    std::string voce = spoglia_spazi_e_tab(elenco.substr(i, j == std::string::npos ? j : j - i));
    if (voce.rfind("W/", 0) == 0) voce = voce.substr(2);
    if (voce == "*" || voce == etag) return true;
    if (j == std::string::npos) break;
    i = j + 1;
  }
  return false;
}

std::optional<std::int64_t> numero(const std::string& s) {
  if (s.empty() || s.size() > 18) return std::nullopt;
  std::int64_t n = 0;
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), n);
  if (ec != std::errc() || p != s.data() + s.size() || n < 0) return std::nullopt;
  return n;
}

struct Intervallo {
  bool soddisfacibile = true;
  std::int64_t inizio = 0, lunghezza = 0;
};

// One "bytes=a-b", "bytes=a-" or "bytes=-n" range; absent when malformed or a list of several.
std::optional<Intervallo> leggi_range(const std::string& testo, std::int64_t dimensione) {
  std::string t = spoglia_spazi_e_tab(testo);
  if (t.rfind("bytes=", 0) != 0) return std::nullopt;
  t = spoglia_spazi_e_tab(t.substr(6));
  if (t.find(',') != std::string::npos) return std::nullopt;
  auto trattino = t.find('-');
  if (trattino == std::string::npos) return std::nullopt;
  std::string a = spoglia_spazi_e_tab(t.substr(0, trattino));
  std::string b = spoglia_spazi_e_tab(t.substr(trattino + 1));
  Intervallo r;
  if (a.empty()) {
    auto n = numero(b);
    if (!n) return std::nullopt;
    if (*n == 0 || dimensione == 0) return Intervallo{false};
    r.lunghezza = std::min(*n, dimensione);
    r.inizio = dimensione - r.lunghezza;
    return r;
  }
  auto da = numero(a);
  if (!da) return std::nullopt;
  std::int64_t fino = dimensione - 1;
  if (!b.empty()) {
    auto x = numero(b);
    if (!x || *x < *da) return std::nullopt;
    fino = std::min(*x, dimensione - 1);
  }
  if (*da >= dimensione) return Intervallo{false};
  r.inizio = *da;
  r.lunghezza = fino - *da + 1;
  return r;
}

// A download name safe inside a quoted header value, with the UTF-8 form beside it.
std::string disposizione(bool allegato, const std::string& nome) {
  std::string ascii, codificato;
  bool solo_ascii = true;
  for (unsigned char c : nome) {
    if (c < 0x20 || c == 0x7f || c == '"' || c == '\\') {
      ascii += '_';
    } else if (c >= 0x80) {
      solo_ascii = false;
      if (c >= 0xC0) ascii += '_';  // one blank per character, not per byte
    } else {
      ascii += static_cast<char>(c);
    }
    if (std::isalnum(c) || c == '.' || c == '-' || c == '_') {
      codificato += static_cast<char>(c);
    } else {
      char buf[4];
      std::snprintf(buf, sizeof buf, "%%%02X", c);
      codificato += buf;
    }
  }
  std::string v = std::string(allegato ? "attachment" : "inline") + "; filename=\"" + ascii + "\"";
  if (!solo_ascii) v += "; filename*=UTF-8''" + codificato;
  return v;
}

}  // namespace

std::string data_http(std::int64_t epoch) {
  std::time_t t = static_cast<std::time_t>(epoch);
  std::tm g{};
  gmtime_r(&t, &g);
  static const char* giorni[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* mesi[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s, %02d %s %04d %02d:%02d:%02d GMT", giorni[g.tm_wday],
                g.tm_mday, mesi[g.tm_mon], g.tm_year + 1900, g.tm_hour, g.tm_min, g.tm_sec);
  return buf;
}

std::optional<std::int64_t> leggi_data_http(const std::string& testo) {
  static const char* mesi[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char giorno[4] = {}, mese[4] = {}, zona[4] = {};
  int g = 0, a = 0, h = 0, m = 0, s = 0;
  if (std::sscanf(testo.c_str(), "%3s, %d %3s %d %d:%d:%d %3s", giorno, &g, mese, &a, &h, &m, &s,
                  zona) != 8)
    return std::nullopt;
  int mm = -1;
  for (int i = 0; i < 12; ++i)
    if (std::string(mese) == mesi[i]) mm = i;
  if (mm < 0 || std::string(zona) != "GMT") return std::nullopt;
  std::tm t{};
  t.tm_year = a - 1900;
  t.tm_mon = mm;
  t.tm_mday = g;
  t.tm_hour = h;
  t.tm_min = m;
  t.tm_sec = s;
  return static_cast<std::int64_t>(timegm(&t));
}

PianoInvio pianifica_invio(const FileDaInviare& file, const InfoFile& info,
                           const std::map<std::string, std::string>& intestazioni) {
  PianoInvio piano;
  std::string etag = etag_di(info);
  std::int64_t mtime = info.mtime_ns / 1000000000;
  auto& h = piano.intestazioni;
  h = {{"ETag", etag},
       {"Last-Modified", data_http(mtime)},
       {"Accept-Ranges", "bytes"},
       {"Cache-Control", "private, max-age=3600"}};

  std::string inm = valore(intestazioni, "if-none-match");
  std::string ims = valore(intestazioni, "if-modified-since");
  bool invariato = false;
  if (!inm.empty()) {
    invariato = etag_tra(inm, etag);
  } else if (!ims.empty()) {
    auto quando = leggi_data_http(ims);
    invariato = quando && mtime <= *quando;
  }
  if (invariato) {
    piano.status = 304;
    return piano;
  }

  h.emplace_back("Content-Type", file.tipo);
  h.emplace_back("Content-Disposition", disposizione(file.allegato, file.nome_download));
  piano.lunghezza = info.dimensione;

  std::string range = valore(intestazioni, "range");
  std::string if_range = spoglia_spazi_e_tab(valore(intestazioni, "if-range"));
  bool range_valido = !range.empty();
  if (range_valido && !if_range.empty()) {
    if (if_range.front() == '"' || if_range.rfind("W/", 0) == 0) {
      range_valido = if_range == etag;  // strong comparison, as byte ranges require
    } else {
      auto quando = leggi_data_http(if_range);
      range_valido = quando && *quando == mtime;
    }
  }
  if (range_valido) {
    auto r = leggi_range(range, info.dimensione);
    if (r && !r->soddisfacibile) {
      piano.status = 416;
      piano.lunghezza = 0;
      h.emplace_back("Content-Range", "bytes */" + std::to_string(info.dimensione));
      return piano;
    }
    if (r) {
      piano.status = 206;
      piano.inizio = r->inizio;
      piano.lunghezza = r->lunghezza;
      h.emplace_back("Content-Range", "bytes " + std::to_string(r->inizio) + "-" +
                                          std::to_string(r->inizio + r->lunghezza - 1) + "/" +
                                          std::to_string(info.dimensione));
    }
  }
  h.emplace_back("Content-Length", std::to_string(piano.lunghezza));
  return piano;
}

std::optional<InfoFile> info_file(const std::string& percorso) {
  struct stat st;
  if (::stat(percorso.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  InfoFile i;
  i.dimensione = st.st_size;
  i.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  i.inode = st.st_ino;
  return i;
}

}  // namespace nvr

#include "tests/reliability/generatore_fuzz.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>

#include "tests/reliability/richiesta_grezza.h"

namespace nvr::affidabilita {

namespace {

// The mount points of the machine: the fuzzer must never hand one to the unmount route, which
// would really unmount it (it is an administrator's action, and this machine is shared).
std::set<std::string> punti_di_montaggio() {
  std::set<std::string> punti;
  std::ifstream in("/proc/self/mounts");
  std::string dev, dove, resto;
  while (in >> dev >> dove && std::getline(in, resto)) punti.insert(dove);
  return punti;
}

bool montaggio(const std::set<std::string>& punti, const std::string& p) {
  std::error_code ec;
  auto vero = std::filesystem::weakly_canonical(std::string(p.c_str()), ec);
  return punti.count(ec ? p : vero.string()) > 0;
}

}  // namespace

Generatore::Generatore(std::uint64_t seme, Bersagli b) : rng_(seme), b_(std::move(b)) {
  basi_ = {b_.archivio,
           b_.sfoglia,
           b_.sfoglia + "/sotto",
           b_.sfoglia + "/fuga",
           b_.sfoglia + "/fuga/..",
           b_.sfoglia + "/../..",
           b_.sfoglia + "/sotto/../../../tmp",
           b_.archivio + "/..",
           b_.dati,
           b_.fuori,
           "/",
           "/etc",
           "/tmp",
           "/proc/self/root/etc",
           "/media/../etc",
           "/srv/../tmp",
           "/mediafoo",
           "/media/zuna_nvr/" + b_.marca,
           "relativa",
           "../../etc",
           "%2e%2e/%2e%2e/etc",
           b_.fuori + "/segreto.txt",
           std::string("/srv\0/../etc", 12),
           "//etc",
           std::string(5000, '/') + "etc"};
  const auto montaggi = punti_di_montaggio();
  for (std::string p :
       {std::string(""), std::string("/nonesiste/" + b_.marca), b_.dati, b_.archivio, b_.sfoglia,
        std::string("../.."), std::string("/media/zuna_nvr/" + b_.marca), b_.fuori + "/x"})
    if (!montaggio(montaggi, p)) smontabili_.push_back(p);
}

Colpo Generatore::prossima() {
  const int quale = tra(0, 29);
  Colpo r;
  switch (quale) {
    case 0:
      r = get("/api/nvr/config");
      break;
    case 1:
    case 2:
      r = post("/api/nvr/config", corpo_config());
      r.puo_500 = true;
      break;
    case 3:
      r = post("/api/nvr/camera", corpo_camera());
      r.puo_500 = true;
      break;
    case 4:
      r = get("/api/nvr/storage");
      break;
    case 5:
      r = post("/api/nvr/storage/monta", corpo_monta());
      r.attesa = 200;
      break;
    case 6:
      r = post("/api/nvr/storage/smonta", Json{{"mountpoint", scegli(smontabili_)}});
      break;
    case 7:
    case 8:
      r = get("/api/nvr/cartelle" + query({{"base", scegli(basi_)}}));
      r.cartelle = true;
      break;
    case 9:
      r = post("/api/nvr/cartelle", Json{{"base", scegli(basi_)}, {"nome", nome()}});
      r.cartelle = true;
      break;
    case 10:
      r = get("/api/nvr/stato");
      break;
    case 11:
      r = post("/api/nvr/installa_ffmpeg", valore(1));
      break;
    case 12:
      r = get("/api/nvr/riassunto");
      break;
    case 13:
      r = get("/api/nvr/giorni" + query({{"cam", testo_cam()}}));
      break;
    case 14:
    case 15:
      r = get("/api/nvr/registrazioni" + query({{"cam", testo_cam()}, {"giorno", giorno()}}));
      break;
    case 16:
    case 17:
    case 18:
      r = video();
      break;
    case 19:
      r = elimina_innocuo();
      break;
    case 20:
      r = get("/api/nvr/archivio");
      break;
    case 21:
      r = host();
      break;
    case 22:
      r = host();
      break;
    case 23:
    case 24:
      r = pagina();
      break;
    case 25:
      r = rotto();
      break;
    default:
      r = get(scegli<std::string>(
          {"/api/nvr/stato", "/api/nvr/giorni", "/api/sessione", "/api/stati"}));
  }
  return r;
}

Json Generatore::numero() {
  return scegli<Json>({0,
                       -1,
                       1,
                       7,
                       59,
                       61,
                       1800,
                       1801,
                       365,
                       366,
                       std::numeric_limits<std::int64_t>::max(),
                       std::numeric_limits<std::int64_t>::min(),
                       std::numeric_limits<std::uint64_t>::max(),
                       9007199254740993LL,
                       1e308,
                       -1e308,
                       1.5,
                       -0.5,
                       59.9,
                       1e-300,
                       2.5e9});
}

std::string Generatore::testo() {
  switch (tra(0, 12)) {
    case 0:
      return "";
    case 1:
      return " 12 ";
    case 2:
      return "1e3";
    case 3:
      return "0x1f";
    case 4:
      return "../../etc/passwd";
    case 5:
      return "%2e%2e/%2e%2e/etc";
    case 6:
      return std::string("a\0b", 3);
    case 7:
      return "\xc3\xa8\xe2\x82\xac";
    case 8:
      return kSegnaposto;
    case 9:
      return "'; DROP TABLE nvr_registrazioni; --";
    case 10:
      return caso(0.15) ? std::string(1 << 20, 'A') : std::string(300, 'z');
    case 11:
      return "//srv/" + b_.marca;
    default: {
      std::string s;
      for (int i = tra(0, 24); i > 0; --i) s += static_cast<char>(tra(32, 126));
      return s;
    }
  }
}

Json Generatore::valore(int profondita) {
  switch (tra(0, profondita > 0 ? 6 : 3)) {
    case 0:
      return nullptr;
    case 1:
      return caso(0.5);
    case 2:
      return numero();
    case 3:
      return testo();
    case 4: {
      Json a = Json::array();
      for (int i = tra(0, 3); i > 0; --i) a.push_back(valore(profondita - 1));
      return a;
    }
    default: {
      Json o = Json::object();
      for (int i = tra(0, 3); i > 0; --i) o[testo()] = valore(profondita - 1);
      return o;
    }
  }
}

Json Generatore::corpo_config() {
  Json c = Json::object();
  if (caso(0.3)) c["attivo"] = scegli<Json>({1, true, 7, -3, "x", Json::array({1}), 2.5});
  if (caso(0.4)) c["segmento_sec"] = caso(0.6) ? numero() : valore(1);
  if (caso(0.4)) c["giorni"] = caso(0.6) ? numero() : valore(1);
  if (caso(0.3))
    c["spazio_min_gb"] =
        scegli<Json>({-1, 0, 0.1, 0.5, 1, "2", "abc", Json::array(), Json::object(), true});
  const bool cartella_rifiutata = caso(0.4);
  if (cartella_rifiutata)
    c["cartella"] = scegli<Json>({"/", "/etc", "/tmp", b_.dati, "/media", "/mnt", "/srv",
                                  "/mediafoo", "../../etc", "/media/../etc", "/srv/../tmp",
                                  b_.sfoglia + "/fuga", "relativa/x", 5, Json::array({"/srv"}),
                                  Json{{"a", 1}}, true, std::string("/srv\0/../etc", 12)});
  if (caso(0.3)) {
    if (cartella_rifiutata)
      c["destinazione"] = Json{{"tipo", scegli<Json>({"usb", "rete", "locale", 5})},
                               {"dev", testo()},
                               {"password", testo()},
                               {"server", testo()}};
    else
      c["destinazione"] = scegli<Json>(
          {5, "rete", Json::array({1}), Json{{"tipo", "locale"}}, Json{{"tipo", "USB"}}});
  }
  if (caso(0.2)) c[testo()] = valore();
  return c;
}

Json Generatore::id_camera() {
  Json id = scegli<Json>({b_.riserva, std::to_string(b_.riserva), "abc", -1, 0, 9e18, 12345.5, -0.5,
                          nullptr, Json::array(), 1e300, "999999999999999999999"});
  // A value that reads as the recording camera would switch it off: that is configuration.
  if (intero(id) == b_.cam) id = b_.riserva;
  return id;
}

Json Generatore::corpo_camera() {
  Json c = Json::object();
  if (caso(0.9)) c["id"] = id_camera();
  for (const char* k : {"attiva", "modo", "orari", "eventi", "post_roll"})
    if (caso(0.4)) c[k] = valore();
  if (caso(0.2)) c["modo"] = scegli<Json>({"sempre", "orari", "eventi", "SEMPRE"});
  return c;
}

Json Generatore::corpo_monta() {
  if (caso(0.5))
    return Json{{"tipo", "rete"},
                {"proto", scegli<Json>({"smb", "nfs", "NFS", 5})},
                {"server", scegli<Json>({"nas", "//nas", "nas:/x", testo(), "10.255.255.1"})},
                {"share", testo()},
                {"utente", testo()},
                {"password", testo()}};
  return Json{{"tipo", valore(0)},
              {"dev", scegli<Json>({"/dev/../etc", "/dev/" + b_.marca, testo(), 5})},
              {"uuid", testo()},
              {"etichetta", testo()}};
}

Json Generatore::nome() {
  const std::string m = b_.marca;
  return scegli<Json>({m, "../" + m, "../../" + m, m + "/../../x", "./" + m, "..", ".", "",
                       m + std::string("\0/../x", 6), m + std::string(70, 'n'), "/tmp/" + m, 5,
                       nullptr, Json::array({m})});
}

std::string Generatore::testo_cam() {
  return scegli<std::string>({std::to_string(b_.cam), std::to_string(b_.riserva), "abc", "-1",
                              "1.5", "", "99999999999999999999999", "0x1", " 1", kNonUtf8,
                              std::string(2000, '9')});
}

std::string Generatore::giorno() {
  return scegli<std::string>({"2024-02-30", "2024-13-01", "oggi", "", "2024-1-1", "9999-12-31",
                              "0000-01-01", "2024-03-31", "../../etc", kNonUtf8,
                              std::string(4000, '2')});
}

Colpo Generatore::post(const std::string& percorso, const Json& corpo) {
  return richiesta("POST", percorso, corpo_testo(corpo));
}

std::string Generatore::corpo_testo(const Json& corpo) {
  switch (tra(0, 19)) {
    case 0:
      return "{";
    case 1:
      return "{\"a\":";
    case 2:
      return kNonUtf8;
    case 3:
      return "null";
    case 4:
      return caso(0.1) ? std::string(1 << 20, '[') : std::string(1000, '[');
    default: {
      std::string t = corpo.dump(-1, ' ', false, Json::error_handler_t::replace);
      // Raw invalid UTF-8 inside a JSON text, which no JSON library writes.
      for (std::size_t i; (i = t.find(kSegnaposto)) != std::string::npos;)
        t.replace(i, std::strlen(kSegnaposto), kNonUtf8);
      return t;
    }
  }
}

std::string Generatore::query(const std::vector<std::pair<std::string, std::string>>& coppie) {
  std::string q;
  for (const auto& [k, v] : coppie) {
    if (caso(0.1)) continue;
    q += (q.empty() ? "?" : "&") + k + "=" + (caso(0.9) ? codifica_url(v) : v);
  }
  if (caso(0.05)) q += "&" + coppie[0].first + "=doppio";
  return q;
}

std::string Generatore::cookie(const std::string& percorso) {
  const int c = tra(0, 99);
  // A valid session on the logout route would end the fuzzer's own session.
  if (c < 75 && percorso != "/api/uscita") return b_.cookie;
  if (c < 83) return "";
  if (c < 90) {
    std::string falso = b_.cookie;
    for (std::size_t i = falso.find('=') + 1; i < falso.size(); ++i)
      falso[i] = "0123456789abcdef"[tra(0, 15)];
    return falso;
  }
  if (c < 95) return b_.cookie_uscito;
  return scegli<std::string>({";;;=", "nvr_sessione=", "nvr_sessione=" + std::string(5000, 'a'),
                              "nvr_sessione=x; " + b_.cookie, "nvr_sessione"});
}

Colpo Generatore::richiesta(std::string metodo, std::string bersaglio, std::string corpo) {
  std::string altre;
  const std::string percorso = bersaglio.substr(0, bersaglio.find('?'));
  if (auto c = cookie(percorso); !c.empty()) altre += "Cookie: " + c + "\r\n";
  if (!corpo.empty() && caso(0.8)) altre += "Content-Type: application/json\r\n";
  // Wrong methods on any route, never DELETE: deletions come only from elimina_innocuo.
  if (caso(0.08))
    metodo = scegli<std::string>({"PUT", "PATCH", "OPTIONS", "HEAD", "GET", "POST", "FOO", "get"});
  if (caso(0.1)) bersaglio = trucca(bersaglio);
  Colpo r;
  r.rotta = metodo + " " + percorso;
  r.testo = testo_richiesta(metodo, bersaglio, altre, corpo);
  // The server may drop a request line or header longer than it accepts without an answer.
  r.http_rotto = r.testo.find("\r\n") > 8000 || altre.size() > 8000;
  return r;
}

std::string Generatore::trucca(std::string b) {
  const std::size_t dopo_primo = std::min(b.find('/', 1), b.size());
  switch (tra(0, 7)) {
    case 0:
      return std::string("/") + b;
    case 1:
      return b.insert(dopo_primo, "/.");
    case 2:
      return b.insert(dopo_primo, "/x/..");
    case 3:
      return b.insert(dopo_primo, "/%2e%2e");
    case 4:
      return b + "%00";
    case 5:
      return b.insert(b.find('?') == std::string::npos ? b.size() : b.find('?'), "/");
    case 6: {
      std::transform(b.begin(), b.end(), b.begin(), ::toupper);
      return b;
    }
    default:
      return b.insert(1, std::string(3000, 'a') + "/../");
  }
}

Colpo Generatore::video() {
  std::string rid = rid_noti.empty() || caso(0.3)
                        ? scegli<std::string>({"0", "999999999", "-1", "abc", "1.5", "",
                                               "99999999999999999999999", "%2e%2e", "1%00"})
                        : std::to_string(scegli(rid_noti));
  std::string bersaglio = "/api/nvr/video/" + rid;
  if (caso(0.3)) bersaglio += "?scarica=" + scegli<std::string>({"1", "0", "", "%00", "11"});
  std::string altre;
  if (caso(0.8)) altre += "Cookie: " + cookie(bersaglio) + "\r\n";
  const int quanti = caso(0.1) ? 2 : 1;
  for (int i = 0; i < quanti; ++i)
    if (caso(0.7))
      altre += "Range: " +
               scegli<std::string>({"bytes=0-99", "bytes=-100", "bytes=100-", "bytes=99-0",
                                    "bytes=0-0,5-10", "bytes=999999999999-", "bytes=abc",
                                    "bytes=-0", "bytes=0-18446744073709551615", "items=0-1",
                                    "bytes=--1", "bytes= 0 - 5", "bytes=0-", "bytes=1-1",
                                    "bytes=" + std::string(3000, '1') + "-"}) +
               "\r\n";
  if (caso(0.1))
    altre += scegli<std::string>({"If-None-Match: *\r\n", "If-None-Match: \"x\"\r\n",
                                  "If-Range: garbage\r\n", "If-Modified-Since: ieri\r\n",
                                  "If-Modified-Since: Sat, 01 Jan 2100 00:00:00 GMT\r\n"});
  Colpo r;
  r.rotta = "GET /api/nvr/video/<rid>";
  r.testo = testo_richiesta(caso(0.05) ? "HEAD" : "GET", bersaglio, altre);
  if (rid.find_first_not_of("0123456789") == std::string::npos && !rid.empty())
    r.video = std::atoll(rid.c_str());
  return r;
}

Colpo Generatore::elimina_innocuo() {
  if (caso(0.5)) {
    const std::string rid =
        scegli<std::string>({"999999999", "99999999999999999999999", "-1", "abc", "",
                             "%39%39%39%39%39%39%39", "1.5", "0x10"});
    return richiesta("DELETE", "/api/nvr/registrazione/" + rid, "");
  }
  Json corpo =
      scegli<Json>({Json::object(), Json{{"cam", "3a"}}, Json{{"giorno", "2024-13-01"}},
                    Json{{"cam", "abc"}, {"tutto", true}}, Json{{"giorno", "x"}, {"tutto", 1}},
                    Json{{"senza_file", true}}, Json{{"tutto", false}}, Json{{"cam", ""}},
                    Json{{"cam", -1}}, Json{{"cam", 1.5}}, Json{{"tutto", 0}, {"x", valore()}},
                    "tutto", Json::array({Json{{"tutto", true}}})});
  std::string testo = caso(0.2) ? scegli<std::string>({"{\"tutto\":", "{", kNonUtf8})
                                : corpo.dump(-1, ' ', false, Json::error_handler_t::replace);
  Colpo r = richiesta("DELETE", "/api/nvr/registrazioni", testo);
  return r;
}

Colpo Generatore::host() {
  std::vector<std::string> rid = {std::to_string(b_.riserva), "999999", "0", "-1", "abc",
                                  "99999999999999999999999"};
  for (auto id : cam_ospiti) rid.push_back(std::to_string(id));
  // Rare: every wrong password is answered only after a pause that grows with each one.
  if (caso(0.03)) return post("/api/accesso", caso(0.5) ? valore() : Json{{"password", valore(1)}});
  switch (tra(0, 8)) {
    case 0:
      return get("/api/info");
    case 1:
      return get("/api/telecamere");
    case 2:
      return post("/api/telecamere", Json{{"nome", valore(1)}, {"url", url()}});
    case 3:
      return post("/api/telecamere/" + scegli(rid), Json{{"nome", valore(1)}, {"url", url()}});
    case 4:
      return richiesta("DELETE", "/api/telecamere/" + scegli(rid), "");
    case 5:
      return post("/api/stati", valore());
    case 6:
      return richiesta("POST", "/api/uscita", "");
    case 7:
      return get("/api/sessione");
    default:
      return get("/api/stati");
  }
}

Json Generatore::url() {
  if (caso(0.5)) return valore(1);
  return scegli<Json>({"rtsp://127.0.0.1:9/" + std::string(200000, 'u'),
                       "rtsp://127.0.0.1:9/a -i /etc/passwd", "http://127.0.0.1:9/\n-y /tmp/x",
                       "RTSP://127.0.0.1:9/x", "file:///etc/passwd", " rtsp://127.0.0.1:9/ ",
                       "rtsp://127.0.0.1:9/" + std::string(kSegnaposto)});
}

Colpo Generatore::pagina() {
  const std::string segreto = b_.fuori + "/segreto.txt";
  return get(scegli<std::string>({"/",
                                  "/index.html",
                                  "/app.js",
                                  "/stile.css",
                                  "/icona.svg",
                                  "/../../../etc/passwd",
                                  "/%2e%2e/%2e%2e/%2e%2e/etc/passwd",
                                  "/..%2f..%2f..%2fetc%2fpasswd",
                                  "//etc/passwd",
                                  "/app.js/../../../etc/passwd",
                                  segreto,
                                  "/" + codifica_url(segreto),
                                  "/%2e%2e/%2e%2e/%2e%2e/%2e%2e" + segreto,
                                  "/icona.svg%00.html",
                                  "/index.html/",
                                  "/api",
                                  "/api/",
                                  "/api/../index.html",
                                  "/" + std::string(1 << 14, 'p'),
                                  "/" + b_.archivio + "/segreto.txt",
                                  "/archivio/segreto.txt",
                                  "/nvr.db"}));
}

Colpo Generatore::rotto() {
  Colpo r;
  r.rotta = "HTTP rotto";
  r.http_rotto = true;
  const std::string c = "Cookie: " + b_.cookie + "\r\n";
  r.testo = scegli<std::string>(
      {"GET\r\n\r\n", "GET /api/nvr/stato\r\n\r\n", "\r\n\r\n",
       "GET /api/nvr/stato HTTP/9.9\r\nHost: x\r\nConnection: close\r\n\r\n",
       std::string("GET /api/nvr/\0stato HTTP/1.1\r\nConnection: close\r\n\r\n", 51),
       "GET /api/nvr/stato HTTP/1.1\r\nConnection: close\r\n" + c +
           "X: " + std::string(1 << 20, 'h') + "\r\n\r\n",
       "GET /" + std::string(1 << 20, 'u') + " HTTP/1.1\r\nConnection: close\r\n\r\n",
       "POST /api/nvr/config HTTP/1.1\r\nConnection: close\r\n" + c +
           "Content-Length: 100\r\n\r\n{\"a\":1}",
       "POST /api/nvr/config HTTP/1.1\r\nConnection: close\r\n" + c +
           "Content-Length: -5\r\n\r\n{}",
       "POST /api/nvr/config HTTP/1.1\r\nConnection: close\r\n" + c +
           "Transfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n0\r\n\r\n",
       "POST /api/nvr/cartelle HTTP/1.1\r\nConnection: close\r\n" + c +
           "Content-Length: 99999999999999999999\r\n\r\n{}",
       "GET /api/nvr/stato HTTP/1.1\r\nConnection: close\r\nCookie\r\n\r\n",
       "GET /api/nvr/stato HTTP/1.1\nConnection: close\n" + c.substr(0, c.size() - 2) + "\n\n"});
  return r;
}

}  // namespace nvr::affidabilita

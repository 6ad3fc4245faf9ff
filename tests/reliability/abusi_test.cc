// The standalone program abused while it records the real camera. The two secrets it holds, the
// network share's password and the administrator's, never leave it: not in an answer (body or
// header), not in its output, not in the recorders' logs, not in a file of the data folder but
// the database. Malformed requests go against every route, over several connections at once. Each
// route has a well-formed request; each request sent breaks it one way: a bad or huge value in one
// field, a path trick, a wrong method, a broken JSON body, a bad byte range, a missing or forged
// session, or broken HTTP. The server must stay up and answer, never with a 5xx (but the generic
// error for an unreadable number where the host leaves it), never serve a file that is not an
// indexed recording nor list a folder outside the permitted roots, and must leave the archive and
// the index as they were. The seed is printed; NVR_SEME replays a run. It never sends what an
// administrator may legitimately do to destroy recordings, move the archive or unmount a real file
// system.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string_view>
#include <thread>

#include "core/testi.h"
#include "testing/processi.h"
#include "testing/stand_in.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;
using Valori = std::vector<Json>;

// HTTP at the byte level: what no well-behaved client sends, and a server that answers badly told
// from one that does not answer at all.
struct RispostaGrezza {
  int status = 0;        // 0: no status line came back (refused, closed, or time-out)
  bool scaduta = false;  // the answer was not complete within the time limit
  std::string testata, corpo;
  std::string intestazione(const std::string& nome) const {  // `nome` in lower case; "" if absent
    std::size_t i = minuscolo(testata).find("\r\n" + nome + ":");
    if (i == std::string::npos) return "";
    i = std::min(testata.size(), testata.find_first_not_of(' ', i + nome.size() + 3));
    return testata.substr(i, testata.find("\r\n", i) - i);
  }
};

// Sends `richiesta` as it is to the loopback port and reads the answer until its body is complete
// or the server closes, each read waiting up to `secondi`.
RispostaGrezza invia_grezza(int porta, const std::string& richiesta, int secondi) {
  RispostaGrezza r;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const timeval attesa{secondi, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &attesa, sizeof(attesa));
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &attesa, sizeof(attesa));
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_port = htons(static_cast<std::uint16_t>(porta));
  ind.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string dati;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)) == 0) {
    // The server may answer (and close) before it read everything, e.g. a 400 for a request
    // line it refused: a failed write is not the end, the answer may be waiting.
    for (std::string_view resto = richiesta; !resto.empty();) {
      const ssize_t n = ::send(fd, resto.data(), resto.size(), MSG_NOSIGNAL);
      if (n <= 0) break;
      resto.remove_prefix(static_cast<std::size_t>(n));
    }
    // Until the body is complete: a broken request may leave the connection open.
    char blocco[64 * 1024];
    for (std::size_t testa = std::string::npos, attesi = std::string::npos;
         testa == std::string::npos || dati.size() < testa + 4 + attesi;) {
      const ssize_t n = ::recv(fd, blocco, sizeof(blocco), 0);
      if (n < 0 && errno == EINTR) continue;
      r.scaduta = n < 0;  // SO_RCVTIMEO
      if (n <= 0) break;
      dati.append(blocco, static_cast<std::size_t>(n));
      if (testa == std::string::npos && (testa = dati.find("\r\n\r\n")) != std::string::npos) {
        r.testata = dati.substr(0, testa);
        const std::string cl = r.intestazione("content-length");
        attesi = cl.empty() ? std::string::npos - testa - 4 : std::stoull(cl);
        if (richiesta.starts_with("HEAD ")) attesi = 0;
      }
    }
  }
  ::close(fd);
  const std::size_t testa = dati.find("\r\n\r\n");
  if (testa == std::string::npos || !dati.starts_with("HTTP/")) return r;
  r.status = std::atoi(dati.c_str() + 9);
  r.corpo = dati.substr(testa + 4);
  return r;
}

// Connection: close, the `altre` header lines, and a length for a body or a body method (the
// server refuses one without, as no browser sends it).
std::string testo_richiesta(const std::string& metodo, const std::string& bersaglio,
                            const std::string& altre = "", const std::string& corpo = "") {
  std::string t =
      metodo + " " + bersaglio + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + altre;
  if (!corpo.empty() || (metodo != "GET" && metodo != "HEAD"))
    t += "Content-Length: " + std::to_string(corpo.size()) + "\r\n";
  return t + "\r\n" + corpo;
}

// The session cookie pair ("nvr_sessione=..."), "" when refused.
std::string accedi_grezzo(int porta, const std::string& password) {
  auto r =
      invia_grezza(porta,
                   testo_richiesta("POST", "/api/accesso", "Content-Type: application/json\r\n",
                                   Json{{"password", password}}.dump()),
                   60);
  const std::string c = r.intestazione("set-cookie");
  return r.status == 200 ? c.substr(0, c.find(';')) : "";
}

const std::string kNonUtf8 = "\xff\xfe\xc3(";

// A well-formed request, and the values each field may be broken with.
struct Rotta {
  std::string metodo, percorso;         // "{rid}" and "{cam}" are filled per request
  Json corpo;                           // null: no body
  std::map<std::string, Valori> campi;  // body fields (query parameters for GET) to break
  bool puo_500 = false;                 // a number the host's generic error may reject
};

struct Colpo {
  std::string testo, traccia;
  bool puo_500 = false, http_rotto = false;
  std::optional<std::int64_t> video;  // the recording asked for, to check the bytes served
};

// clang-format off
const Valori kNumeri = {-1, 0, 1.5, 1e308, std::numeric_limits<std::int64_t>::max(),
                        std::numeric_limits<std::uint64_t>::max(), "abc", "", " 12 ", "0x1f",
                        nullptr, true, Json::array({1}), Json{{"a", 1}}, std::string(1 << 16, '9')};

// Every route with the values that break it. The spare camera is the only one the camera routes
// may reach (never the recording one); the configuration gets only values the API must refuse:
// a saved archive folder, destination or huge free-space floor would be an administrator's
// action, not abuse. [da, a) is the well-formed playback span, which holds recordings.
std::vector<Rotta> rotte(std::int64_t riserva, const std::string& sfoglia,
                         const std::string& segreto, double da, double a) {
  const Json nul = std::string("/srv\0/../etc", 12);
  const Valori basi = {sfoglia, sfoglia + "/fuga", sfoglia + "/fuga/..", sfoglia + "/../..", "/",
                       "/etc", "/proc/self/root/etc", "/media/../etc", "../../etc",
                       "%2e%2e/%2e%2e/etc", nul, segreto, std::string(5000, '/') + "etc"};
  const Valori giorno = {"2024-02-30", "2024-13-01", "oggi",          "9999-12-31",
                         "../../etc",  kNonUtf8,     std::string(4000, '2')};
  const Valori url = {"rtsp://127.0.0.1:9/" + std::string(200000, 'u'),
                      "rtsp://127.0.0.1:9/a -i /etc/passwd", "http://127.0.0.1:9/\n-y /tmp/x",
                      "file:///etc/passwd", 5, nullptr};
  const Valori id = {riserva, std::to_string(riserva), "abc", -1, 0, 9e18, 12345.5, nullptr,
                     Json::array()};
  const Json camera = {{"nome", "Fuzz"}, {"url", "rtsp://127.0.0.1:9/x"}};
  // Playback: seconds that are no number, not finite, out of any range, or a span past 24 hours
  // or ending before it starts.
  const Valori cam = {riserva, "abc", "-1", "0", "1.5", "1e3", "99999999999999999999999", "nan",
                      kNonUtf8, ""};
  const Valori secondi = {"abc", "", "-1", "nan", "NaN", "inf", "-inf", "Infinity", "1e308",
                          "-1e308", "1e999", "0x1f", " 12", kNonUtf8, std::string(4000, '9'),
                          std::numeric_limits<std::int64_t>::max(), "1e9"};
  Valori inizi = secondi, fini = secondi;
  inizi.push_back(std::to_string(a - 86400 - 10));
  fini.insert(fini.end(), {std::to_string(da + 86400.5), std::to_string(da), "0"});
  std::vector<Rotta> rotte = {
      {"POST", "/api/nvr/config", Json{{"giorni", 30}},
       {{"giorni", kNumeri}, {"segmento_sec", kNumeri},
        {"spazio_min_gb", {-1, "abc", Json::array(), "2"}},
        {"cartella", {"/", "/etc", "../../etc", "relativa", 5, nul}},
        {"destinazione", {5, "rete", Json::array({1}), Json{{"tipo", "USB"}}}}}, true},
      {"POST", "/api/nvr/camera", Json{{"id", riserva}, {"attiva", true}, {"modo", "sempre"}},
       {{"id", id}, {"modo", {"SEMPRE", 5, ""}}, {"post_roll", kNumeri}, {"orari", kNumeri},
        {"eventi", kNumeri}}, true},
      {"POST", "/api/nvr/storage/monta", Json{{"tipo", "usb"}, {"uuid", "nessuno"}},
       {{"tipo", {5, "", "RETE"}}, {"dev", {"/dev/../etc", "/dev/null", 5}},
        {"uuid", {"../../etc", std::string(100000, 'u')}}}},
      {"POST", "/api/nvr/storage/smonta", Json{{"mountpoint", "/nonesiste/nvr-fuzz"}},
       {{"mountpoint", {"", "../..", "/media/zuna_nvr/../../nonesiste", 5, nullptr}}}},
      {"GET", "/api/nvr/cartelle", nullptr, {{"base", basi}}},
      {"POST", "/api/nvr/cartelle", Json{{"base", sfoglia}, {"nome", "nvrfz"}},
       {{"base", basi}, {"nome", {"..", "../../nvrfz", "nvrfz/../../x", "/tmp/nvrfz", "",
                                  std::string("nvrfz\0/../x", 11), 5}}}},
      {"GET", "/api/nvr/giorni", nullptr, {{"cam", {"abc", "-1", "1.5", kNonUtf8}}}},
      {"GET", "/api/nvr/registrazioni", nullptr,
       {{"cam", {"abc", "99999999999999999999999", kNonUtf8}}, {"giorno", giorno}}},
      {"GET", "/api/nvr/video/{rid}", nullptr, {{"scarica", {"1", "%00", "11"}}}},
      {"DELETE", "/api/nvr/registrazione/{rid}", nullptr, {}},
      // Bodies the bulk deletion must refuse (or that match no recording).
      {"DELETE", "/api/nvr/registrazioni", Json{{"giorno", "2024-13-01"}},
       {{"cam", {"3a", "", -1, 1.5}}, {"giorno", giorno}}},
      {"POST", "/api/telecamere", camera, {{"nome", kNumeri}, {"url", url}}},
      {"POST", "/api/telecamere/{cam}", camera, {{"url", url}}},
      {"DELETE", "/api/telecamere/{cam}", nullptr, {}},
      {"POST", "/api/stati", Json{{"binary_sensor.porta", "on"}}, {{"binary_sensor.porta", url}}},
      {"POST", "/api/accesso", Json{{"password", "sbagliata"}}, {{"password", kNumeri}}},
      {"POST", "/api/uscita", nullptr, {}},
      {"POST", "/api/nvr/installa_ffmpeg", Json::object(), {}},
      {"GET", "/api/flusso", nullptr, {{"cam", cam}, {"da", inizi}, {"a", fini}}},
      {"GET", "/api/flusso", nullptr, {{"cam", cam}, {"da", inizi}}},  // up to the run's end
      {"GET", "/api/esporta", nullptr, {{"cam", cam}, {"da", inizi}, {"a", fini}}},
      {"GET", "/api/esporta/impronta", nullptr, {{"cam", cam}, {"da", inizi}, {"a", fini}}},
      {"GET", "/api/anteprima", nullptr, {{"cam", cam}, {"t", secondi}}},
  };
  for (const std::string p : {"/api/nvr/config", "/api/nvr/storage", "/api/nvr/stato", "/api/info",
                              "/api/nvr/riassunto", "/api/nvr/archivio", "/api/telecamere",
                              "/api/sessione", "/", "/app.js", segreto.c_str()})
    rotte.push_back({"GET", p, nullptr, {}});
  return rotte;
}
// clang-format on

struct Generatore {
  std::mt19937_64 rng;
  std::vector<Rotta> rotte;
  std::string cookie, uscito, riserva;
  std::map<std::string, std::string> buoni;  // good query values
  std::vector<std::int64_t> rid_noti;        // indexed recordings, refreshed by the caller

  int tra(int a, int b) { return std::uniform_int_distribution<int>(a, b)(rng); }
  bool caso(double p) { return std::uniform_real_distribution<double>(0, 1)(rng) < p; }
  template <class T>
  T scegli(const std::vector<T>& v) {
    return v[static_cast<std::size_t>(tra(0, static_cast<int>(v.size()) - 1))];
  }
  std::string scegli(const std::vector<std::string>& v) { return scegli<std::string>(v); }
  static void sostituisci(std::string& s, const std::string& da, const std::string& a) {
    if (auto i = s.find(da); i != std::string::npos) s.replace(i, da.size(), a);
  }

  Colpo prossimo() {
    const Rotta& r = scegli(rotte);
    std::string metodo = r.metodo, percorso = r.percorso, altre, query;
    std::string rid = rid_noti.empty() || caso(0.3)
                          ? scegli({"0", "-1", "abc", "1.5", "99999999999999999999999", "%2e%2e"})
                          : std::to_string(scegli(rid_noti));
    if (r.metodo == "DELETE") rid = scegli({"999999999", "-1", "abc", "", "0x10"});  // none indexed
    sostituisci(percorso, "{rid}", rid);
    sostituisci(percorso, "{cam}", scegli({"999999", "0", "-1", "abc", riserva}));
    Json corpo = r.corpo;
    std::string testo_corpo;
    std::map<std::string, std::string> parametri;
    if (r.metodo == "GET")
      for (const auto& [k, v] : r.campi) parametri[k] = buoni[k];
    switch (tra(0, 7)) {
      case 0:
      case 1:  // one field broken
        if (!r.campi.empty()) {
          auto it = std::next(r.campi.begin(), tra(0, static_cast<int>(r.campi.size()) - 1));
          const Json v = scegli(it->second);
          if (r.metodo == "GET")
            parametri[it->first] = v.is_string() ? v.get<std::string>() : v.dump();
          else
            corpo[it->first] = v;
        }
        break;
      case 2: {  // a path trick
        const std::string p = percorso;
        percorso = scegli({"/@", "@/", "@%00", "/%2e%2e/%2e%2e@", "@/../../../etc/passwd", "@/x/..",
                           "/" + std::string(3000, 'a') + "/..@"});
        sostituisci(percorso, "@", p);
        break;
      }
      case 3:  // a wrong method, never a deletion
        metodo = scegli({"PUT", "PATCH", "OPTIONS", "HEAD", "FOO", "get"});
        break;
      case 4:  // a broken body
        if (r.metodo != "GET")
          testo_corpo = scegli({"{", "{\"a\":", kNonUtf8, "null", "[]",
                                std::string(caso(0.1) ? 1 << 20 : 1000, '[')});
        break;
      case 5:  // a bad byte range; no session, a forged one, or one that has logged out
        altre = scegli({"Range: bytes=-100", "Range: bytes=99-0", "Range: bytes=0-0,5-10",
                        "Range: bytes=999999999999-", "Range: bytes=abc", "Range: bytes=-0",
                        "Range: bytes=0-18446744073709551615", "Range: items=0-1",
                        "Range: bytes=0-99", "Cookie: ", "Cookie: nvr_sessione=0123456789abcdef",
                        "Cookie: " + uscito, "Cookie: nvr_sessione=" + std::string(5000, 'a')}) +
                "\r\n";
        break;
      default:  // as it is, or broken HTTP
        if (caso(0.3)) return rotto();
    }
    for (const auto& [k, v] : parametri)  // percent-encoded, or now and then sent raw
      query += (query.empty() ? "?" : "&") + k + "=" +
               (caso(0.9) ? httplib::detail::encode_query_param(v) : v);
    // A valid session on the logout route would end the fuzzer's own.
    if (altre.find("Cookie:") == std::string::npos && r.percorso != "/api/uscita")
      altre += "Cookie: " + cookie + "\r\n";
    if (testo_corpo.empty() && !corpo.is_null())
      testo_corpo = corpo.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (!testo_corpo.empty()) altre += "Content-Type: application/json\r\n";
    const std::string testo = testo_richiesta(metodo, percorso + query, altre, testo_corpo);
    // A request line longer than the server takes may be dropped without an answer.
    Colpo c{
        testo, metodo + " " + percorso.substr(0, 200), r.puo_500, testo.find("\r\n") > 8000, {}};
    if (r.percorso == "/api/nvr/video/{rid}" &&
        rid.find_first_not_of("0123456789") == std::string::npos)
      c.video = std::atoll(rid.c_str());
    return c;
  }

  Colpo rotto() {
    const std::string k = "Cookie: " + cookie + "\r\n";
    const std::string testo = scegli(
        {"GET\r\n\r\n", "GET /api/nvr/stato HTTP/9.9\r\n\r\n",
         std::string("GET /api/nvr/\0stato HTTP/1.1\r\n\r\n", 32),
         "GET / HTTP/1.1\r\nX: " + std::string(1 << 20, 'h') + "\r\n\r\n",
         "POST /api/nvr/config HTTP/1.1\r\n" + k + "Content-Length: -5\r\n\r\n{}",
         "POST /api/nvr/config HTTP/1.1\r\n" + k + "Transfer-Encoding: chunked\r\n\r\nzz\r\n"});
    return {testo, "HTTP rotto", false, true, {}};
  }
};

std::map<std::int64_t, std::string> voci_indice(const std::string& db_file) {
  std::map<std::int64_t, std::string> voci;
  for (const auto& r : Connessione(db_file).righe("SELECT id, file FROM nvr_registrazioni"))
    voci[come_intero(r[0])] = come_testo(r[1]);
  return voci;
}

bool dentro(const std::string& p, const std::vector<std::string>& radici) {
  std::error_code ec;
  const std::string r = fs::weakly_canonical(std::string(p.c_str()), ec).string();
  return std::any_of(radici.begin(), radici.end(), [&](const auto& radice) {
    return r == radice || r.starts_with(radice + "/");
  });
}

// One recording serves both abuses: the share's password handled through every way it can go
// (then searched for in every answer, log and file), and the fuzzer.
TEST(AbusiTest, SecretsNeverLeakAndMalformedRequestsNeverCrashLeakOrLose) {
  const char* s = std::getenv("NVR_SEME");
  const std::uint64_t seme = s ? std::strtoull(s, nullptr, 10) : std::random_device{}();
  std::printf("[affidabilita] fuzz: NVR_SEME=%llu ripete questa prova\n",
              static_cast<unsigned long long>(seme));
  std::fflush(stdout);  // the seed must survive a crash of the test
  const int totale = kProveLunghe ? 10000 : 500, connessioni = kProveLunghe ? 8 : 4;
  // Mount as a stand-in: no SMB server here. A temporary folder of the test's own holds the
  // recorders' logs and the credentials files.
  testing::Controfigure finte;
  finte.mount_registratore();
  testing::CartellaTemporanea tmp;
  testing::VariabileDiProva tmpdir("TMPDIR", tmp.percorso());
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  ASSERT_TRUE(imp.avvia());
  ASSERT_TRUE(imp.registra(2));
  const std::string condivisa = "Cond-" + std::to_string(seme) + "-Parola", admin = imp.password();
  auto chiama = [&](const std::string& metodo, const std::string& bersaglio, const Json& corpo) {
    auto r = imp.programma().chiama(metodo, bersaglio, corpo.is_null() ? "" : corpo.dump());
    std::string risposta = r.corpo;
    for (const auto& [nome, valore] : r.intestazioni) risposta += nome + ": " + valore + "\n";
    for (const auto& s : {condivisa, admin})
      EXPECT_EQ(risposta.find(s), std::string::npos) << metodo << " " << bersaglio;
    return r.status;
  };
  // The share's mount calls: let through (nothing mounted), refused, and after the password is
  // saved with the configuration, without it (the saved one is used). No credentials file
  // outlives a call; their content and mode are storage/rete_root_test.cc's.
  const Json share = {{"tipo", "rete"},
                      {"proto", "smb"},
                      {"server", "nas"},
                      {"share", "video"},
                      {"utente", "OFFICE\\mario"}};
  Json con_password = share;
  con_password["password"] = condivisa;
  chiama("POST", "/api/nvr/storage/monta", con_password);
  finte.rispondi_mount(2, 32, "mount error(13): Permission denied");
  EXPECT_EQ(chiama("POST", "/api/nvr/storage/monta", con_password), 400);
  ASSERT_EQ(chiama("POST", "/api/nvr/config", Json{{"destinazione", con_password}}), 200);
  for (const char* r :
       {"/api/nvr/config", "/api/nvr/stato", "/api/nvr/storage", "/api/nvr/archivio",
        "/api/nvr/riassunto", "/api/info", "/api/telecamere", "/api/stati"})
    EXPECT_EQ(chiama("GET", r, nullptr), 200) << r;
  chiama("POST", "/api/nvr/storage/monta", share);
  EXPECT_GE(finte.chiamate_mount().size(), 3u);
  ASSERT_EQ(chiama("POST", "/api/nvr/config", Json{{"destinazione", {{"tipo", "locale"}}}}), 200);
  imp.sql("UPDATE nvr_config SET segmento_sec=3");
  std::error_code ec;
  fs::remove("/media/zuna_nvr/rete_nas_video", ec);  // the empty mount point the calls made

  // A second camera whose address leads nowhere: the fuzzer's camera settings go to it.
  auto riserva = imp.programma().post("/api/telecamere",
                                      {{"nome", "Riserva"}, {"url", "rtsp://127.0.0.1:9/x"}});
  ASSERT_EQ(riserva.status, 200);
  const int porta = imp.programma().porta();
  // A browse root under a permitted root, with a way out through a symbolic link, and a secret
  // beside the data folder that must never be served.
  const std::string fuori = fs::path(imp.dati()).parent_path(),
                    sfoglia = "/srv/nvr-fuzz-" + std::to_string(::getpid());
  fs::create_directories(sfoglia);
  fs::create_directory_symlink(fuori, sfoglia + "/fuga");
  std::unique_ptr<const char, void (*)(const char*)> pulizia(sfoglia.c_str(), [](const char* p) {
    std::error_code e;
    fs::remove_all(p, e);
  });
  const std::string segreto = "SEGRETO-" + std::to_string(seme);
  std::ofstream(fuori + "/segreto.txt") << segreto;
  const std::string cookie = accedi_grezzo(porta, admin), uscito = accedi_grezzo(porta, admin);
  ASSERT_FALSE(cookie.empty());
  ASSERT_EQ(
      invia_grezza(porta, testo_richiesta("POST", "/api/uscita", "Cookie: " + uscito + "\r\n"), 30)
          .status,
      200);
  const auto prima = voci_indice(imp.db_file());
  const std::int64_t id_riserva = riserva.json.value("id", std::int64_t{0});
  // Playback from before the first segment to past the fuzzer's end; pictures from a moment
  // already recorded.
  const double adesso = static_cast<double>(std::time(nullptr)), da = adesso - 600,
               a = adesso + 600;
  Generatore gen{std::mt19937_64(seme),
                 rotte(id_riserva, sfoglia, fuori + "/segreto.txt", da, a),
                 cookie,
                 uscito,
                 std::to_string(id_riserva),
                 {{"cam", std::to_string(imp.cam())},
                  {"base", sfoglia},
                  {"scarica", "1"},
                  {"giorno", "2024-01-01"},
                  {"da", std::to_string(da)},
                  {"a", std::to_string(a)},
                  {"t", std::to_string(adesso - 3)}},
                 {}};
  for (int inviate = 0; inviate < totale;) {
    // A batch is drawn in order (the seed replays it), sent over several connections at once,
    // then checked in order.
    gen.rid_noti.clear();
    for (const auto& [id, f] : voci_indice(imp.db_file())) gen.rid_noti.push_back(id);
    std::vector<Colpo> colpi(std::min(100, totale - inviate));
    for (auto& c : colpi) c = gen.prossimo();
    std::vector<RispostaGrezza> risposte(colpi.size());
    std::atomic<std::size_t> prossimo{0};
    std::vector<std::thread> fili;
    for (int f = 0; f < connessioni; ++f)
      fili.emplace_back([&] {
        for (std::size_t k; (k = prossimo++) < colpi.size();)
          risposte[k] = invia_grezza(porta, colpi[k].testo, 60);
      });
    for (auto& f : fili) f.join();
    for (std::size_t i = 0; i < colpi.size(); ++i, ++inviate) {
      const Colpo& c = colpi[i];
      const RispostaGrezza& a = risposte[i];
      const std::string traccia = c.traccia + " (richiesta " + std::to_string(inviate) +
                                  ", NVR_SEME=" + std::to_string(seme) + ")";
      ASSERT_FALSE(a.scaduta) << "nessuna risposta: " << traccia;
      ASSERT_TRUE(a.status != 0 || c.http_rotto) << "chiusa senza risposta: " << traccia;
      if (a.status == 500 && c.puo_500) {
        EXPECT_NE(a.corpo.find("non e' un"), std::string::npos) << a.corpo << traccia;
      } else if (!(c.http_rotto && a.status == 505)) {  // "HTTP/9.9" is answered as such
        ASSERT_LT(a.status, 500) << a.corpo.substr(0, 300) << traccia;
      }
      for (const std::string& vietato : {segreto, std::string("root:x:0:0"), admin, condivisa})
        ASSERT_EQ(a.corpo.find(vietato), std::string::npos) << traccia;
      if (c.video && (a.status == 200 || a.status == 206) && !a.corpo.empty()) {
        // Whatever the video route serves is an indexed recording, byte for byte.
        auto voci = voci_indice(imp.db_file());
        ASSERT_TRUE(voci.count(*c.video)) << traccia;
        std::stringstream file;
        file << std::ifstream(voci[*c.video], std::ios::binary).rdbuf();
        const std::string cr = a.intestazione("content-range");
        ASSERT_TRUE(a.status == 200 || cr.starts_with("bytes ")) << cr << traccia;
        const std::size_t da = a.status == 206 ? std::stoull(cr.substr(6)) : 0;
        EXPECT_EQ(file.str().compare(da, a.corpo.size(), a.corpo), 0) << traccia;
      }
      const Json j = c.traccia.ends_with(" /api/nvr/cartelle") && a.status == 200
                         ? leggi_json(a.corpo).value_or(Json())
                         : Json();
      for (const char* k : {"base", "percorso"})
        if (j.is_object() && j.contains(k) && j[k].is_string()) {
          EXPECT_TRUE(dentro(j[k].get<std::string>(),
                             {"/media", "/mnt", "/srv", "/home", "/Volumes", imp.archivio()}))
              << a.corpo << traccia;
        }
      if (c.traccia.starts_with("POST /api/accesso"))
        accedi_grezzo(porta, admin);  // ends the pause
    }
    ASSERT_TRUE(imp.in_esecuzione()) << imp.tutto_il_log();
    auto vivo = invia_grezza(
        porta, testo_richiesta("GET", "/api/sessione", "Cookie: " + cookie + "\r\n"), 60);
    ASSERT_NE(vivo.corpo.find("true"), std::string::npos) << "sessione persa: " << vivo.corpo;
  }
  for (const std::string f : {"/", "/etc", "/tmp", fuori.c_str()})
    for (const auto& v : fs::directory_iterator(f, ec))
      EXPECT_FALSE(v.path().filename().string().starts_with("nvrfz"))
          << "creata fuori: " << v.path();
  // Every row indexed before the fuzzer is still there, with its file.
  auto dopo = voci_indice(imp.db_file());
  for (const auto& [id, f] : prima) EXPECT_TRUE(dopo.count(id) && fs::exists(f)) << f;
  // The fuzzer's saved configurations restart the recorder (new segment length): 30 s at most.
  EXPECT_TRUE(imp.ferma_e_verifica(30));

  // The output, but for the one line that hands the new password to whoever started it.
  std::istringstream log(imp.tutto_il_log());
  for (std::string riga; std::getline(log, riga);)
    for (const auto& s : {condivisa, admin})
      if (!riga.starts_with("Password dell'amministratore: ")) {
        EXPECT_EQ(riga.find(s), std::string::npos) << riga;
      }
  // Every file of the data folder (the database keeps the password on purpose) and of the
  // temporary folder (the recorders' logs, where the credentials files lived).
  int log_ffmpeg = 0;
  for (const auto& cartella : {imp.dati(), tmp.percorso()})
    for (auto it = fs::recursive_directory_iterator(cartella, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (!it->is_regular_file() || it->path().filename().string().starts_with("nvr.db")) continue;
      log_ffmpeg += it->path().extension() == ".log";
      EXPECT_NE(it->path().extension(), ".cred") << it->path();
      const std::string testo = testing::leggi_file(it->path());
      for (const auto& s : {condivisa, admin})
        EXPECT_EQ(testo.find(s), std::string::npos) << it->path();
    }
  EXPECT_GE(log_ffmpeg, 1) << "nessun log di ffmpeg in " << tmp.percorso();
}

}  // namespace
}  // namespace nvr::affidabilita

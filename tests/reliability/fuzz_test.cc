// Malformed requests against every route of the standalone program while it records the real
// camera, over several connections at once. Each route has a well-formed request; each request
// sent breaks it one way: a bad or huge value in one field, a path trick, a wrong method, a broken
// JSON body, a bad byte range, a missing or forged session, or broken HTTP. The server must stay
// up and answer, never with a 5xx (but the generic error for an unreadable number where the host
// leaves it), never serve a file that is not an indexed recording nor list a folder outside the
// permitted roots, and must leave the archive and the index as they were. The seed is printed;
// NVR_SEME replays a run. It never sends what an administrator may legitimately do to destroy
// recordings, move the archive or unmount a real file system.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "tests/reliability/impianto.h"
#include "tests/reliability/richiesta_grezza.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;
using Valori = std::vector<Json>;

const std::string kNonUtf8 = "\xff\xfe\xc3(";

// A well-formed request, and the values each field may be broken with.
struct Rotta {
  std::string metodo, percorso;         // "{rid}" and "{cam}" are filled per request
  Json corpo;                           // null: no body
  std::map<std::string, Valori> campi;  // body fields (or query parameters for GET) to break
  bool puo_500 = false;                 // a number the host's generic error may reject
};

struct Colpo {
  std::string testo, traccia;
  bool puo_500 = false, http_rotto = false, cartelle = false;
  std::optional<std::int64_t> video;  // the recording asked for, to check the bytes served
};

// clang-format off
Valori numeri_cattivi() {
  return {-1, 0, 1.5, -0.5, 1e308, -1e308, std::numeric_limits<std::int64_t>::max(),
          std::numeric_limits<std::uint64_t>::max(), "abc", "", " 12 ", "0x1f", nullptr, true,
          Json::array({1}), Json{{"a", 1}}, std::string(1 << 16, '9')};
}

class Generatore {
 public:
  Generatore(std::uint64_t seme, std::int64_t cam, std::int64_t riserva, const std::string& sfoglia,
             const std::string& segreto, std::string cookie, std::string cookie_uscito)
      : rng_(seme), cam_(cam), cookie_(std::move(cookie)), uscito_(std::move(cookie_uscito)) {
    predefiniti_ = {{"cam", std::to_string(cam)}, {"base", sfoglia}, {"scarica", "1"},
                    {"giorno", "2024-01-01"}};
    const Valori basi = {sfoglia, sfoglia + "/fuga", sfoglia + "/fuga/..", sfoglia + "/../..", "/",
                         "/etc", "/proc/self/root/etc", "/media/../etc", "../../etc",
                         "%2e%2e/%2e%2e/etc", std::string("/srv\0/../etc", 12), segreto,
                         std::string(5000, '/') + "etc"};
    const Valori id = {riserva, std::to_string(riserva), "abc", -1, 0, 9e18, 12345.5, nullptr,
                       Json::array(), "999999999999999999999"};
    const Valori giorno = {"2024-02-30", "2024-13-01", "oggi", "9999-12-31", "../../etc", kNonUtf8,
                           std::string(4000, '2')};
    const Valori url = {"rtsp://127.0.0.1:9/" + std::string(200000, 'u'),
                        "rtsp://127.0.0.1:9/a -i /etc/passwd", "http://127.0.0.1:9/\n-y /tmp/x",
                        "file:///etc/passwd", 5, nullptr};
    const Json camera = {{"nome", "Fuzz"}, {"url", "rtsp://127.0.0.1:9/x"}};
    rotte_ = {
        {"GET", "/api/nvr/config", nullptr, {}},
        // Only values the API must refuse: a saved archive folder, destination or huge free-space
        // floor would be an administrator's action, not abuse.
        {"POST", "/api/nvr/config", Json{{"giorni", 30}},
         {{"giorni", numeri_cattivi()}, {"segmento_sec", numeri_cattivi()},
          {"spazio_min_gb", {-1, "abc", Json::array(), Json::object(), true, "2"}},
          {"cartella", {"/", "/etc", "../../etc", "/media/../etc", "relativa", 5, basi[10]}},
          {"destinazione", {5, "rete", Json::array({1}), Json{{"tipo", "USB"}}}}}, true},
        {"POST", "/api/nvr/camera", Json{{"id", riserva}, {"attiva", true}, {"modo", "sempre"}},
         {{"id", id}, {"modo", {"SEMPRE", 5, ""}}, {"post_roll", numeri_cattivi()},
          {"orari", numeri_cattivi()}, {"eventi", numeri_cattivi()}}, true},
        {"GET", "/api/nvr/storage", nullptr, {}},
        {"POST", "/api/nvr/storage/monta", Json{{"tipo", "usb"}, {"uuid", "nessuno"}},
         {{"tipo", {5, "", "RETE"}}, {"dev", {"/dev/../etc", "/dev/null", 5}},
          {"uuid", {"../../etc", std::string(100000, 'u')}}}},
        {"POST", "/api/nvr/storage/smonta", Json{{"mountpoint", "/nonesiste/nvr-fuzz"}},
         {{"mountpoint", {"", "../..", "/media/zuna_nvr/../../nonesiste", 5, nullptr}}}},
        {"GET", "/api/nvr/cartelle", nullptr, {{"base", basi}}},
        {"POST", "/api/nvr/cartelle", Json{{"base", sfoglia}, {"nome", "nvrfz"}},
         {{"base", basi}, {"nome", {"..", "../nvrfz", "../../nvrfz", "nvrfz/../../x", "/tmp/nvrfz",
                                    "", std::string("nvrfz\0/../x", 11), 5}}}},
        {"GET", "/api/nvr/stato", nullptr, {}},
        {"GET", "/api/nvr/riassunto", nullptr, {}},
        {"GET", "/api/nvr/archivio", nullptr, {}},
        {"POST", "/api/nvr/installa_ffmpeg", Json::object(), {}},
        {"GET", "/api/nvr/giorni", nullptr, {{"cam", {"abc", "-1", "1.5", kNonUtf8}}}},
        {"GET", "/api/nvr/registrazioni", nullptr,
         {{"cam", {"abc", "-1", "99999999999999999999999", kNonUtf8}}, {"giorno", giorno}}},
        {"GET", "/api/nvr/video/{rid}", nullptr, {{"scarica", {"1", "%00", "11"}}}},
        {"DELETE", "/api/nvr/registrazione/{rid}", nullptr, {}},
        // Bodies the bulk deletion must refuse (or that match no recording).
        {"DELETE", "/api/nvr/registrazioni", Json{{"giorno", "2024-13-01"}},
         {{"cam", {"3a", "", -1, 1.5}}, {"giorno", giorno}}},
        {"GET", "/api/info", nullptr, {}},
        {"GET", "/api/telecamere", nullptr, {}},
        {"POST", "/api/telecamere", camera, {{"nome", numeri_cattivi()}, {"url", url}}},
        {"POST", "/api/telecamere/{cam}", camera, {{"url", url}}},
        {"DELETE", "/api/telecamere/{cam}", nullptr, {}},
        {"POST", "/api/stati", Json{{"binary_sensor.porta", "on"}}, {{"binary_sensor.porta", url}}},
        {"POST", "/api/uscita", nullptr, {}},
        {"GET", "/api/sessione", nullptr, {}},
        {"POST", "/api/accesso", Json{{"password", "sbagliata"}}, {{"password", numeri_cattivi()}}},
        {"GET", "/", nullptr, {}},
        {"GET", "/app.js", nullptr, {}},
        {"GET", segreto, nullptr, {}},
    };
  }
  // clang-format on

  std::vector<std::int64_t> rid_noti;  // indexed recordings, refreshed by the caller

  Colpo prossimo() {
    const Rotta& r = rotte_[tra(0, static_cast<int>(rotte_.size()) - 1)];
    std::string metodo = r.metodo, percorso = r.percorso, altre, query;
    Json corpo = r.corpo;
    std::string rid = rid_noti.empty() || caso(0.3)
                          ? scegli<std::string>({"0", "-1", "abc", "1.5", "99999999999999999999999",
                                                 "%2e%2e", "1%00"})
                          : std::to_string(scegli(rid_noti));
    if (r.metodo == "DELETE" && percorso.find("{rid}") != std::string::npos)
      rid = scegli<std::string>({"999999999", "-1", "abc", "", "1.5", "0x10"});  // none indexed
    // The spare camera at most: the recording one stays.
    const std::string cam = scegli<std::string>({"999999", "0", "-1", "abc", riserva_testo()});
    sostituisci(percorso, "{rid}", rid);
    sostituisci(percorso, "{cam}", cam);
    Colpo c;
    c.cartelle = percorso == "/api/nvr/cartelle";
    std::string testo_corpo = corpo.is_null() ? "" : corpo.dump();
    std::map<std::string, std::string> parametri;
    if (r.metodo == "GET")
      for (const auto& [k, v] : r.campi) parametri[k] = predefiniti_[k];
    switch (tra(0, 7)) {
      case 0:
      case 1:  // one field broken
        if (!r.campi.empty()) {
          auto it = std::next(r.campi.begin(), tra(0, static_cast<int>(r.campi.size()) - 1));
          const Json v = scegli(it->second);
          if (r.metodo == "GET")
            parametri[it->first] = v.is_string() ? v.get<std::string>() : v.dump();
          else
            corpo[it->first] = it->first == "id" && intero(v) == cam_ ? Json(riserva_testo()) : v;
          testo_corpo =
              corpo.is_null() ? "" : corpo.dump(-1, ' ', false, Json::error_handler_t::replace);
        }
        break;
      case 2:  // a path trick
        percorso = scegli<std::string>({"/" + percorso, percorso + "/", percorso + "%00",
                                        percorso + "/../../../etc/passwd",
                                        "/%2e%2e/%2e%2e" + percorso, percorso + "/x/..",
                                        "/" + std::string(3000, 'a') + "/.." + percorso});
        break;
      case 3:  // a wrong method, never a deletion
        metodo = scegli<std::string>({"PUT", "PATCH", "OPTIONS", "HEAD", "FOO", "get"});
        if (metodo == "PUT" || metodo == "PATCH") testo_corpo = "{}";
        break;
      case 4:  // a broken body
        if (r.metodo != "GET")
          testo_corpo = scegli<std::string>({"{", "{\"a\":", kNonUtf8, "null", "[]",
                                             std::string(caso(0.1) ? 1 << 20 : 1000, '[')});
        break;
      case 5:  // a bad byte range
        altre = "Range: " +
                scegli<std::string>({"bytes=-100", "bytes=99-0", "bytes=0-0,5-10",
                                     "bytes=999999999999-", "bytes=abc", "bytes=-0",
                                     "bytes=0-18446744073709551615", "items=0-1", "bytes=0-99"}) +
                "\r\n";
        break;
      case 6:  // no session, a forged one, or one that has logged out
        altre = "Cookie: " +
                scegli<std::string>({"", "nvr_sessione=0123456789abcdef", uscito_,
                                     "nvr_sessione=" + std::string(5000, 'a')}) +
                "\r\n";
        break;
      default:
        if (caso(0.3)) return rotto();
    }
    for (const auto& [k, v] : parametri)
      query += (query.empty() ? "?" : "&") + k + "=" + (caso(0.9) ? codifica_url(v) : v);
    // A valid session on the logout route would end the fuzzer's own.
    if (altre.find("Cookie:") == std::string::npos && r.percorso != "/api/uscita")
      altre += "Cookie: " + cookie_ + "\r\n";
    if (!testo_corpo.empty()) altre += "Content-Type: application/json\r\n";
    c.testo = testo_richiesta(metodo, percorso + query, altre, testo_corpo);
    c.traccia = metodo + " " + percorso.substr(0, 200);
    c.puo_500 = r.puo_500;
    c.http_rotto = c.testo.find("\r\n") > 8000;  // a request line longer than the server takes
    if (r.percorso == "/api/nvr/video/{rid}" &&
        rid.find_first_not_of("0123456789") == std::string::npos)
      c.video = std::atoll(rid.c_str());
    return c;
  }

 private:
  int tra(int a, int b) { return std::uniform_int_distribution<int>(a, b)(rng_); }
  bool caso(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }
  template <class T>
  T scegli(const std::vector<T>& v) {
    return v[static_cast<std::size_t>(tra(0, static_cast<int>(v.size()) - 1))];
  }
  std::string riserva_testo() { return rotte_[2].corpo["id"].dump(); }
  static void sostituisci(std::string& s, const std::string& da, const std::string& a) {
    if (auto i = s.find(da); i != std::string::npos) s.replace(i, da.size(), a);
  }
  Colpo rotto() {
    Colpo c;
    c.traccia = "HTTP rotto";
    c.http_rotto = true;
    const std::string k = "Cookie: " + cookie_ + "\r\n";
    c.testo = scegli<std::string>(
        {"GET\r\n\r\n", "GET /api/nvr/stato HTTP/9.9\r\n\r\n",
         std::string("GET /api/nvr/\0stato HTTP/1.1\r\n\r\n", 32),
         "GET / HTTP/1.1\r\nX: " + std::string(1 << 20, 'h') + "\r\n\r\n",
         "POST /api/nvr/config HTTP/1.1\r\n" + k + "Content-Length: -5\r\n\r\n{}",
         "POST /api/nvr/config HTTP/1.1\r\n" + k + "Transfer-Encoding: chunked\r\n\r\nzz\r\n"});
    return c;
  }

  std::mt19937_64 rng_;
  std::int64_t cam_;
  std::string cookie_, uscito_;
  std::vector<Rotta> rotte_;
  std::map<std::string, std::string> predefiniti_;  // good query values
};

std::map<std::int64_t, std::string> voci_indice(const std::string& db_file) {
  std::map<std::int64_t, std::string> voci;
  Connessione c(db_file);
  for (const auto& r : c.righe("SELECT id, file FROM nvr_registrazioni"))
    voci[come_intero(r[0])] = come_testo(r[1]);
  return voci;
}

bool dentro(const std::string& p, const std::vector<std::string>& radici) {
  std::error_code ec;
  const std::string r = fs::weakly_canonical(std::string(p.c_str()), ec).string();
  for (const auto& radice : radici)
    if (r == radice || r.starts_with(radice + "/")) return true;
  return false;
}

TEST(FuzzTest, MalformedRequestsNeverCrashLeakOrLose) {
  const char* s = std::getenv("NVR_SEME");
  const std::uint64_t seme = s ? std::strtoull(s, nullptr, 10) : std::random_device{}();
  std::printf("[affidabilita] fuzz: NVR_SEME=%llu ripete questa prova\n",
              static_cast<unsigned long long>(seme));
  std::fflush(stdout);  // the seed must survive a crash of the test
  const int totale = kProveLunghe ? 10000 : 500, connessioni = kProveLunghe ? 8 : 4;
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  std::int64_t cam = 0;
  ASSERT_TRUE(imp.registra_fino_a("Ingresso", 2, &cam));
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
  const std::string admin = imp.password().back(), cookie = accedi_grezzo(porta, admin),
                    uscito = accedi_grezzo(porta, admin);
  ASSERT_FALSE(cookie.empty());
  auto esci = testo_richiesta("POST", "/api/uscita", "Cookie: " + uscito + "\r\n");
  ASSERT_EQ(invia_grezza(porta, esci, 30).status, 200);
  const auto prima = voci_indice(imp.db_file());
  Generatore gen(seme, cam, riserva.json.value("id", std::int64_t{0}), sfoglia,
                 fuori + "/segreto.txt", cookie, uscito);
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
      if (a.status == 500 && c.puo_500)
        EXPECT_NE(a.corpo.find("non e' un"), std::string::npos) << a.corpo << traccia;
      else if (!(c.http_rotto && a.status == 505))  // "HTTP/9.9" is answered as such
        ASSERT_LT(a.status, 500) << a.corpo.substr(0, 300) << traccia;
      for (const std::string& vietato : {segreto, std::string("root:x:0:0"), admin})
        ASSERT_EQ(a.corpo.find(vietato), std::string::npos) << traccia;
      if (c.video && (a.status == 200 || a.status == 206) && !a.corpo.empty()) {
        // Whatever the video route serves is an indexed recording, byte for byte.
        auto voci = voci_indice(imp.db_file());
        ASSERT_TRUE(voci.count(*c.video)) << traccia;
        std::stringstream file;  // the whole segment
        file << std::ifstream(voci[*c.video], std::ios::binary).rdbuf();
        const std::string cr = a.intestazione("Content-Range");
        ASSERT_TRUE(a.status == 200 || cr.starts_with("bytes ")) << cr << traccia;
        const std::size_t da = a.status == 206 ? std::stoull(cr.substr(6)) : 0;
        EXPECT_EQ(file.str().compare(da, a.corpo.size(), a.corpo), 0) << traccia;
      }
      if (c.cartelle && a.status == 200) {
        auto j = leggi_json(a.corpo).value_or(Json());
        for (const char* k : {"base", "percorso"})
          if (j.is_object() && j.contains(k) && j[k].is_string()) {
            EXPECT_TRUE(dentro(j[k].get<std::string>(),
                               {"/media", "/mnt", "/srv", "/home", "/Volumes", imp.archivio()}))
                << a.corpo << traccia;
          }
      }
      if (c.traccia.starts_with("POST /api/accesso"))
        accedi_grezzo(porta, admin);  // ends the pause
    }
    ASSERT_TRUE(imp.in_esecuzione()) << imp.tutto_il_log();
    auto vivo = invia_grezza(
        porta, testo_richiesta("GET", "/api/sessione", "Cookie: " + cookie + "\r\n"), 60);
    ASSERT_NE(vivo.corpo.find("true"), std::string::npos) << "sessione persa: " << vivo.corpo;
  }
  std::error_code ec;
  for (const std::string f : {"/", "/etc", "/tmp", fuori.c_str()})
    for (const auto& v : fs::directory_iterator(f, ec))
      EXPECT_FALSE(v.path().filename().string().starts_with("nvrfz"))
          << "creata fuori: " << v.path();
  // Every row indexed before the fuzzer is still there, with its file.
  auto dopo = voci_indice(imp.db_file());
  for (const auto& [id, f] : prima) EXPECT_TRUE(dopo.count(id) && fs::exists(f)) << f;
  ASSERT_EQ(imp.ferma(), 0) << imp.tutto_il_log();
  auto esito = imp.integrita();
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  // The fuzzer's saved configurations restart the recorder (new segment length): 30 s at most.
  EXPECT_TRUE(esito.buchi_oltre(30).empty()) << esito.descrizione();
}

}  // namespace
}  // namespace nvr::affidabilita

// The program seen from outside, without recording: login and guards, pages, the camera list,
// entity states, and the start-up errors a user meets first.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <regex>

#include "autonomo/programma_di_prova.h"
#include "core/db.h"
#include "testing/ambiente.h"
#include "testing/processi.h"
#include "testing/tmpfs_di_prova.h"
#include "web/collega.h"

namespace nvr::autonomo {
namespace {

using prova::Programma;
using ::testing::HasSubstr;
using ::testing::Not;

// One program for the whole suite: nothing here records, and each start costs a password hash.
class ServerE2eTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    cartella = new testing::CartellaTemporanea();
    programma = Programma::su(*cartella / "dati", {"--fuso", "Europe/Rome"}).release();
    password = programma->password();
    ASSERT_TRUE(programma->pronto()) << programma->errori();
  }
  static void TearDownTestSuite() {
    delete programma;
    delete cartella;
  }
  void SetUp() override {
    ASSERT_TRUE(programma->pronto(0)) << programma->errori();
    programma->dimentica_cookie();
  }
  static inline testing::CartellaTemporanea* cartella = nullptr;
  static inline Programma* programma = nullptr;
  static inline std::string password;
};

TEST_F(ServerE2eTest, EveryApiRouteWantsLoginAndTheRightPasswordOpensThem) {
  EXPECT_THAT(password, ::testing::MatchesRegex("[a-z2-9]{4}(-[a-z2-9]{4}){3}"));
  std::vector<std::pair<std::string, std::string>> protette = {
      {"GET", "/api/info"},          {"GET", "/api/telecamere"},      {"POST", "/api/telecamere"},
      {"POST", "/api/telecamere/1"}, {"DELETE", "/api/telecamere/1"}, {"GET", "/api/stati"},
      {"POST", "/api/stati"}};
  for (const Rotta& r : rotte()) {
    std::string p = std::regex_replace(r.percorso, std::regex("<int:rid>"), "1");
    for (const auto& m : r.metodi) protette.emplace_back(m, p);
  }
  ASSERT_EQ(protette.size(), 7u + 17u);  // 15 routes, two of them with two methods
  for (const auto& [metodo, percorso] : protette) {
    auto r = programma->chiama(metodo, percorso, "{}");
    EXPECT_EQ(r.status, 401) << metodo << " " << percorso;
    EXPECT_EQ(r.json, (Json{{"status", "error"}, {"message", "Accesso richiesto"}}))
        << metodo << " " << percorso;
  }
  // A forged cookie is no session.
  auto r = programma->get("/api/info", {{"Cookie", "nvr_sessione=0123456789abcdef"}});
  EXPECT_EQ(r.status, 401);

  // A wrong password is refused, and slowly.
  auto prima = std::chrono::steady_clock::now();
  r = programma->post("/api/accesso", Json{{"password", password + "x"}});
  double secondi = std::chrono::duration<double>(std::chrono::steady_clock::now() - prima).count();
  EXPECT_EQ(r.status, 401);
  EXPECT_EQ(r.json, (Json{{"status", "error"}, {"message", "Password errata"}}));
  EXPECT_GE(secondi, 1.0);
  EXPECT_EQ(r.intestazione("Set-Cookie"), "");
  EXPECT_EQ(programma->get("/api/sessione").json["loggato"], false);

  // The right one gives a session cookie that opens every route.
  r = programma->post("/api/accesso", Json{{"password", password}});
  ASSERT_EQ(r.status, 200) << r.corpo;
  EXPECT_THAT(
      r.intestazione("Set-Cookie"),
      ::testing::MatchesRegex("nvr_sessione=[0-9a-f]{64}; HttpOnly; SameSite=Strict; Path=/"));
  ASSERT_TRUE(programma->accedi());
  EXPECT_EQ(programma->get("/api/sessione").json["loggato"], true);
  r = programma->get("/api/info");
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.json["status"], "success");
  EXPECT_EQ(r.json["fuso"], "Europe/Rome");
  EXPECT_EQ(programma->get("/api/nvr/stato").status, 200);
  r = programma->get("/api/nvr/config");
  ASSERT_EQ(r.status, 200);
  // The first start chose the archive inside the data folder.
  EXPECT_EQ(r.json["config"]["cartella"], *cartella / "dati/archivio");

  // Leaving forgets the session.
  EXPECT_EQ(programma->post("/api/uscita", Json::object()).status, 200);
  EXPECT_EQ(programma->get("/api/info").status, 401);
}

// A recording larger than the pieces the server sends a file in: every range, across piece
// boundaries or not, must come back byte for byte.
TEST_F(ServerE2eTest, LargeRecordingComesBackWholeAndInRanges) {
  ASSERT_TRUE(programma->accedi());
  const std::string file = *cartella / "dati/archivio/Grande/2024-05-01/10-00-00.mp4";
  std::string dati(3 * 1048576 + 12345, '\0');
  for (std::size_t i = 0; i < dati.size(); ++i) dati[i] = static_cast<char>((i * 7919) >> 5);
  testing::scrivi_file(file, dati);
  std::int64_t id = 0;
  {
    Connessione c(*cartella / "dati/nvr.db");
    c.esegui(
        "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione) VALUES "
        "(99, 1714550400, 1714550700, ?, ?)",
        {file, static_cast<std::int64_t>(dati.size())});
    c.commit();
    id = come_intero(c.righe("SELECT MAX(id) FROM nvr_registrazioni")[0][0]);
  }
  const std::string video = "/api/nvr/video/" + std::to_string(id);
  auto intera = programma->get(video);
  EXPECT_EQ(intera.status, 200);
  EXPECT_TRUE(intera.corpo == dati);

  struct Caso {
    std::size_t da, a;  // inclusive
  };
  const std::size_t n = dati.size();
  for (Caso c : {Caso{0, 1048575}, Caso{1048575, 1048576}, Caso{1000000, 3000000},
                 Caso{2097152, n - 1}, Caso{n - 1, n - 1}}) {
    auto r = programma->get(
        video, {{"Range", "bytes=" + std::to_string(c.da) + "-" + std::to_string(c.a)}});
    EXPECT_EQ(r.status, 206) << c.da;
    EXPECT_EQ(r.intestazione("Content-Range"), "bytes " + std::to_string(c.da) + "-" +
                                                   std::to_string(c.a) + "/" + std::to_string(n));
    EXPECT_TRUE(r.corpo == dati.substr(c.da, c.a - c.da + 1)) << c.da << "-" << c.a;
  }
  Connessione c(*cartella / "dati/nvr.db");
  c.esegui("DELETE FROM nvr_registrazioni WHERE id=?", {id});
  c.commit();
}

TEST_F(ServerE2eTest, PagesAreServedWithoutLogin) {
  struct Caso {
    std::string percorso;
    int status;
    std::string tipo;
  };
  for (const Caso& c : std::vector<Caso>{{"/", 200, "text/html; charset=utf-8"},
                                         {"/index.html", 200, "text/html; charset=utf-8"},
                                         {"/manca.css", 404, "application/json"},
                                         {"/cartella/index.html", 404, "application/json"}}) {
    auto r = programma->get(c.percorso);
    EXPECT_EQ(r.status, c.status) << c.percorso;
    EXPECT_EQ(r.intestazione("Content-Type"), c.tipo) << c.percorso;
    if (c.status == 200) {
      EXPECT_EQ(r.corpo,
                testing::leggi_file(std::string(NVR_SORGENTI) + "/autonomo/pagine/index.html"));
    }
  }
}

TEST_F(ServerE2eTest, CamerasAreAddedChangedAndRemoved) {
  ASSERT_TRUE(programma->accedi());
  struct Caso {
    Json corpo;
    int status;
    std::string messaggio;
  };
  for (const Caso& c : std::vector<Caso>{
           {{{"nome", ""}, {"url", "rtsp://a/b"}}, 400, "Il nome della telecamera e' obbligatorio"},
           {{{"url", "rtsp://a/b"}}, 400, "Il nome della telecamera e' obbligatorio"},
           {{{"nome", "Porta"}, {"url", "file:///etc/passwd"}},
            400,
            "Indirizzo del flusso non valido"},
           {{{"nome", "Porta"}}, 400, "Indirizzo del flusso non valido"},
       }) {
    auto r = programma->post("/api/telecamere", c.corpo);
    EXPECT_EQ(r.status, c.status) << c.corpo;
    EXPECT_EQ(r.json["message"], c.messaggio) << c.corpo;
  }
  auto r =
      programma->post("/api/telecamere", {{"nome", "Ingresso"}, {"url", "RTSP://10.0.0.2/s1"}});
  ASSERT_EQ(r.status, 200) << r.corpo;
  const std::int64_t uno = r.json["id"];
  r = programma->post("/api/telecamere", {{"nome", "Garage"}, {"url", "https://10.0.0.3/s"}});
  const std::int64_t due = r.json["id"];
  const std::string p1 = "/api/telecamere/" + std::to_string(uno);

  EXPECT_EQ(programma->post(p1, {{"nome", "Portone"}}).status, 200);
  EXPECT_EQ(programma->post(p1, {{"url", "rtsps://10.0.0.9/s2"}}).status, 200);
  r = programma->post(p1, {{"url", "ftp://x"}});
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(r.json["message"], "Indirizzo del flusso non valido");
  EXPECT_EQ(programma->post(p1, {{"nome", " "}}).status, 400);
  r = programma->get("/api/telecamere");
  EXPECT_EQ(r.json, (Json{{"status", "success"},
                          {"telecamere",
                           {{{"id", uno}, {"nome", "Portone"}, {"url", "rtsps://10.0.0.9/s2"}},
                            {{"id", due}, {"nome", "Garage"}, {"url", "https://10.0.0.3/s"}}}}}));
  // The recorder sees the host's cameras.
  r = programma->get("/api/nvr/config");
  ASSERT_EQ(r.json["telecamere"].size(), 2u);
  EXPECT_EQ(r.json["telecamere"][0]["nome"], "Portone");

  EXPECT_EQ(programma->elimina(p1).status, 200);
  for (const char* metodo : {"POST", "DELETE"}) {
    r = programma->chiama(metodo, p1, Json{{"nome", "x"}}.dump());
    EXPECT_EQ(r.status, 404) << metodo;
    EXPECT_EQ(r.json["message"], "Telecamera non trovata") << metodo;
  }
  EXPECT_EQ(programma->elimina("/api/telecamere/" + std::to_string(due)).status, 200);
  EXPECT_EQ(programma->get("/api/telecamere").json["telecamere"], Json::array());
}

TEST_F(ServerE2eTest, EntityStatesAreMergedAndRemoved) {
  ASSERT_TRUE(programma->accedi());
  for (const char* corpo : {"[1,2]", "\"on\"", "non json", ""}) {
    auto r = programma->chiama("POST", "/api/stati", corpo);
    EXPECT_EQ(r.status, 400) << corpo;
    EXPECT_EQ(r.json["message"], "Stati non validi") << corpo;
  }
  auto r = programma->post("/api/stati", {{"binary_sensor.porta", "on"}, {"sensor.luce", 3}});
  EXPECT_EQ(r.json["stati"], (Json{{"binary_sensor.porta", "on"}, {"sensor.luce", 3}}));
  r = programma->post("/api/stati", {{"binary_sensor.porta", "off"}, {"sensor.luce", nullptr}});
  EXPECT_EQ(r.json["stati"], (Json{{"binary_sensor.porta", "off"}}));
  EXPECT_EQ(programma->get("/api/stati").json,
            (Json{{"status", "success"}, {"stati", {{"binary_sensor.porta", "off"}}}}));
  programma->post("/api/stati", {{"binary_sensor.porta", nullptr}});
}

TEST(AccessoE2eTest, PasswordIsShownOnceStoredHashedAndRenewedOnRequest) {
  testing::CartellaTemporanea t;
  std::string prima;
  {
    auto p = Programma::su(t / "dati");
    prima = p->password();
    ASSERT_TRUE(p->pronto()) << p->errori();
  }
  {
    auto p = Programma::su(t / "dati");
    ASSERT_TRUE(p->pronto()) << p->errori();
    EXPECT_THAT(p->uscita(), Not(HasSubstr("Password")));
    EXPECT_EQ(p->post("/api/accesso", {{"password", prima}}).status, 200);
  }
  EXPECT_THAT(testing::leggi_file(t / "dati/nvr.db"), Not(HasSubstr(prima)));
  auto p = Programma::su(t / "dati", {"--nuova-password"});
  const std::string nuova = p->password();
  ASSERT_TRUE(p->pronto()) << p->errori();
  EXPECT_NE(nuova, prima);
  EXPECT_EQ(p->post("/api/accesso", {{"password", prima}}).status, 401);
  EXPECT_EQ(p->post("/api/accesso", {{"password", nuova}}).status, 200);
}

// ---- Start-up errors: one Italian line on standard error, a non-zero exit, nothing served.

int occupa_porta(int& porta) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t l = sizeof(ind);
  ::bind(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind));
  ::listen(fd, 1);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&ind), &l);
  porta = ntohs(ind.sin_port);
  return fd;
}

TEST(AvvioE2eTest, StartUpErrorsAreOneLineAndANonZeroExit) {
  testing::CartellaTemporanea t;
  int porta = 0;
  const int fd = occupa_porta(porta);
  testing::scrivi_file(t / "file", "non una cartella");
  std::unique_ptr<testing::TmpfsDiProva> sola_lettura;
  if (::geteuid() == 0) sola_lettura = std::make_unique<testing::TmpfsDiProva>("size=1m", true);

  struct Caso {
    std::string nome;
    std::vector<std::string> argomenti;
    int codice;
    std::string riga;
  };
  std::vector<Caso> casi = {
      {"porta occupata",
       {"--porta", std::to_string(porta), "--dati", t / "a"},
       1,
       "Porta " + std::to_string(porta) + " gia' in uso: scegli un'altra porta con --porta"},
      {"fuso sconosciuto",
       {"--fuso", "Marte/Olimpo", "--dati", t / "b"},
       2,
       "Fuso orario sconosciuto: Marte/Olimpo (esempio: --fuso Europe/Rome)"},
      {"file al posto della cartella",
       {"--dati", t / "file"},
       1,
       "Cartella dei dati " + (t / "file") + " non utilizzabile: "},
  };
  if (sola_lettura && sola_lettura->montato())
    casi.push_back({"cartella in sola lettura",
                    {"--dati", *sola_lettura / "dati"},
                    1,
                    "Cartella dei dati " + (*sola_lettura / "dati") + " non utilizzabile: "});
  for (const Caso& c : casi) {
    Programma p(c.argomenti);
    EXPECT_EQ(p.fine(20), c.codice) << c.nome;
    const std::string errori = p.errori();
    EXPECT_EQ(errori.rfind(c.riga, 0), 0u) << c.nome << ": " << errori;
    EXPECT_EQ(std::count(errori.begin(), errori.end(), '\n'), 1) << c.nome << ": " << errori;
    EXPECT_THAT(p.uscita(), Not(HasSubstr("nvr in ascolto"))) << c.nome;
  }
  ::close(fd);
  if (!sola_lettura || !sola_lettura->montato())
    GTEST_SKIP() << "cartella in sola lettura non provata: serve root per montare un tmpfs";
}

TEST(AvvioE2eTest, WithoutFfmpegTheDemoRefusesToStartAndTheServerWarns) {
  testing::CartellaTemporanea t;
  testing::VariabileDiProva path("PATH", t.percorso());  // an empty folder: no ffmpeg on it
  {
    Programma p({"--porta", std::to_string(testing::porta_libera()), "--dati", t / "a", "--demo"});
    EXPECT_EQ(p.fine(20), 1);
    EXPECT_EQ(p.errori(),
              "ffmpeg non trovato: installa il pacchetto ffmpeg: apt-get install ffmpeg (serve "
              "anche alla telecamera dimostrativa)\n");
  }
  auto p = Programma::su(t / "b");
  ASSERT_TRUE(p->pronto()) << p->errori();
  EXPECT_THAT(p->errori(), HasSubstr("apt-get install ffmpeg"));
  ASSERT_TRUE(p->accedi());
  EXPECT_EQ(p->get("/api/nvr/stato").json["ffmpeg"], false) << p->get("/api/nvr/stato").corpo;
}

}  // namespace
}  // namespace nvr::autonomo

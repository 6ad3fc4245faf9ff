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
  void SetUp() override { programma->dimentica_cookie(); }
  static inline testing::CartellaTemporanea* cartella = nullptr;
  static inline Programma* programma = nullptr;
  static inline std::string password;
};

TEST_F(ServerE2eTest, EveryApiRouteWantsLoginAndTheRightPasswordOpensThem) {
  std::vector<std::pair<std::string, std::string>> protette = {
      {"GET", "/api/info"},          {"GET", "/api/telecamere"},      {"POST", "/api/telecamere"},
      {"POST", "/api/telecamere/1"}, {"DELETE", "/api/telecamere/1"}, {"GET", "/api/stati"},
      {"POST", "/api/stati"},        {"GET", "/api/vivo"},            {"GET", "/api/vivo/1"},
      {"GET", "/api/vivo/griglia"},  {"GET", "/api/vivo/1/istantanea"}, {"POST", "/api/vivo/prova"}};
  for (const Rotta& r : rotte()) {
    std::string p = std::regex_replace(r.percorso, std::regex("<int:rid>"), "1");
    for (const auto& m : r.metodi) protette.emplace_back(m, p);
  }
  ASSERT_EQ(protette.size(), 12u + 17u);  // 15 routes, two of them with two methods
  for (const auto& [metodo, percorso] : protette) {
    auto r = programma->chiama(metodo, percorso, "{}");
    EXPECT_EQ(r.json["message"], "Accesso richiesto") << r.status << " " << metodo << percorso;
  }
  auto r = programma->get("/api/info", {{"Cookie", "nvr_sessione=0123456789abcdef"}});
  EXPECT_EQ(r.status, 401);  // a forged cookie is no session

  // A wrong password is refused, and slowly.
  auto prima = std::chrono::steady_clock::now();
  r = programma->post("/api/accesso", Json{{"password", password + "x"}});
  double secondi = std::chrono::duration<double>(std::chrono::steady_clock::now() - prima).count();
  EXPECT_EQ(r.json["message"], "Password errata");
  EXPECT_GE(secondi, 1.0);

  // The right one gives a session cookie that opens every route.
  r = programma->post("/api/accesso", Json{{"password", password}});
  ASSERT_EQ(r.status, 200) << r.corpo;
  EXPECT_THAT(
      r.intestazione("Set-Cookie"),
      ::testing::MatchesRegex("nvr_sessione=[0-9a-f]{64}; HttpOnly; SameSite=Strict; Path=/"));
  ASSERT_TRUE(programma->accedi());
  EXPECT_EQ(programma->get("/api/info").json["fuso"], "Europe/Rome");
  r = programma->get("/api/nvr/config");
  // The first start chose the archive inside the data folder.
  EXPECT_EQ(r.json["config"]["cartella"], *cartella / "dati/archivio");

  // Leaving forgets the session.
  EXPECT_EQ(programma->post("/api/uscita", Json::object()).status, 200);
  EXPECT_EQ(programma->get("/api/info").status, 401);
}

// The standalone program's own camera list, as the recorder sees it.
TEST_F(ServerE2eTest, CamerasAreAddedChangedAndRemoved) {
  ASSERT_TRUE(programma->accedi());
  auto r = programma->post("/api/telecamere", {{"nome", ""}, {"url", "rtsp://a/b"}});
  EXPECT_EQ(r.json["message"], "Il nome della telecamera e' obbligatorio");
  r = programma->post("/api/telecamere", {{"nome", "Porta"}, {"url", "file:///etc/passwd"}});
  EXPECT_EQ(r.json["message"], "Indirizzo del flusso non valido");
  r = programma->post("/api/telecamere", {{"nome", "Ingresso"}, {"url", "RTSP://10.0.0.2/s1"}});
  ASSERT_EQ(r.status, 200) << r.corpo;
  const std::string p1 = "/api/telecamere/" + std::to_string(r.json["id"].get<std::int64_t>());
  EXPECT_EQ(programma->post(p1, {{"nome", "Portone"}, {"url", "rtsps://10.0.0.9/s2"}}).status, 200);
  EXPECT_EQ(programma->post(p1, {{"url", "ftp://x"}}).status, 400);
  // The optional live-view stream: checked like the main one, "" goes back to the main one.
  EXPECT_EQ(programma->post(p1, {{"nome", "X"}, {"url_vivo", "ftp://x"}}).status, 400);
  EXPECT_EQ(programma->post(p1, {{"url_vivo", " rtsp://10.0.0.9/s3 "}}).status, 200);
  EXPECT_EQ(programma->get("/api/telecamere").json["telecamere"][0]["url_vivo"],
            "rtsp://10.0.0.9/s3");
  EXPECT_EQ(programma->post(p1, {{"url_vivo", ""}}).status, 200);
  EXPECT_EQ(programma->get("/api/telecamere").json["telecamere"][0]["url_vivo"], "");
  r = programma->post("/api/telecamere", {{"nome", "Y"}, {"url", "rtsp://a/b"}, {"url_vivo", "x"}});
  EXPECT_EQ(r.json["message"], "Indirizzo del flusso non valido");
  for (const char* p : {"/api/vivo/999", "/api/vivo/999/istantanea", "/api/vivo/abc"})
    EXPECT_EQ(programma->get(p).status, 404) << p;
  EXPECT_EQ(programma->get("/api/nvr/config").json["telecamere"][0]["nome"], "Portone");
  EXPECT_EQ(programma->elimina(p1).status, 200);
  EXPECT_EQ(programma->elimina(p1).json["message"], "Telecamera non trovata");
  EXPECT_EQ(programma->get("/api/telecamere").json["telecamere"], Json::array());
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
  // clang-format off
  std::vector<Caso> casi = {
      {"porta occupata", {"--porta", std::to_string(porta), "--dati", t / "a"}, 1,
       "Porta " + std::to_string(porta) + " gia' in uso: scegli un'altra porta con --porta"},
      {"fuso sconosciuto", {"--fuso", "Marte/Olimpo", "--dati", t / "b"}, 2,
       "Fuso orario sconosciuto: Marte/Olimpo (esempio: --fuso Europe/Rome)"},
      {"file al posto della cartella", {"--dati", t / "file"}, 2,
       "Cartella dei dati " + (t / "file") + " non utilizzabile: "},
  };
  if (sola_lettura && sola_lettura->montato())
    casi.push_back({"cartella in sola lettura", {"--dati", *sola_lettura / "dati"}, 2,
                    "Cartella dei dati " + (*sola_lettura / "dati") + " non utilizzabile: "});
  // clang-format on
  for (const Caso& c : casi) {
    Programma p(c.argomenti);
    EXPECT_EQ(p.fine(20), c.codice) << c.nome;
    const std::string errori = p.errori();
    EXPECT_TRUE(errori.starts_with(c.riga) && std::count(errori.begin(), errori.end(), '\n') == 1)
        << c.nome << ": " << errori;
  }
  ::close(fd);
  if (!sola_lettura || !sola_lettura->montato())
    GTEST_SKIP() << "cartella in sola lettura non provata: serve root per montare un tmpfs";
}

TEST(AvvioE2eTest, WithoutFfmpegTheDemoRefusesToStart) {
  testing::CartellaTemporanea t;
  testing::VariabileDiProva path("PATH", t.percorso());  // an empty folder: no ffmpeg on it
  Programma p({"--porta", std::to_string(testing::porta_libera()), "--dati", t / "a", "--demo"});
  EXPECT_EQ(p.fine(20), 1);
  EXPECT_EQ(p.errori(),
            "ffmpeg non trovato: installa il pacchetto ffmpeg: apt-get install ffmpeg (serve "
            "anche alla telecamera dimostrativa)\n");
}

}  // namespace
}  // namespace nvr::autonomo

// The router's matching and request reading, which every request goes through.
#include "autonomo/instradamento.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace nvr::autonomo {
namespace {

TEST(InstradamentoTest, IntegerSegmentTakesOnlyPlainNonNegativeIntegers) {
  struct Caso {
    const char* percorso;
    bool corrisponde;
    std::int64_t rid;
  };
  for (const Caso& c :
       std::vector<Caso>{{"/api/nvr/video/0", true, 0},
                         {"/api/nvr/video/123456789012345678", true, 123456789012345678},
                         {"/api/nvr/video/1234567890123456789", false, 0},
                         {"/api/nvr/video/-1", false, 0},
                         {"/api/nvr/video/+1", false, 0},
                         {"/api/nvr/video/1a", false, 0},
                         {"/api/nvr/video/", false, 0},
                         {"/api/nvr/video", false, 0},
                         {"/api/nvr/videox/1", false, 0},
                         {"/api/nvr/video/1/", false, 0}}) {
    std::optional<std::int64_t> rid;
    EXPECT_EQ(corrisponde("/api/nvr/video/<int:rid>", c.percorso, rid), c.corrisponde)
        << c.percorso;
    if (c.corrisponde) {
      EXPECT_EQ(rid, c.rid) << c.percorso;
    }
  }
}

TEST(InstradamentoTest, UnknownPathWrongMethodAndThrowingView) {
  Instradatore app;
  app.add_url_rule("/api/x/<int:rid>", "x_leggi",
                   [](const Richiesta& r) {
                     return _json({{"rid", *r.rid}, {"metodo", r.metodo}});
                   },
                   {"GET"});
  app.add_url_rule(
      "/api/x/<int:rid>", "x_elimina",
      [](const Richiesta&) -> Risposta { throw std::invalid_argument("numero non valido"); },
      {"DELETE"});
  EXPECT_THROW(app.add_url_rule("/api/y", "x_leggi", nullptr, {"GET"}), std::runtime_error);

  Richiesta r;
  r.metodo = "HEAD";
  Risposta risposta = app.instrada("/api/x/7", r);
  EXPECT_EQ(risposta.status, 200);
  EXPECT_EQ(risposta.corpo["rid"], 7);
  r.metodo = "POST";
  EXPECT_EQ(app.instrada("/api/x/7", r).status, 405);
  EXPECT_EQ(app.instrada("/api/z", r).status, 404);
  r.metodo = "DELETE";
  risposta = app.instrada("/api/x/7", r);
  EXPECT_EQ(risposta.status, 500);
  EXPECT_EQ(risposta.corpo["status"], "error");
}

TEST(InstradamentoTest, BodyAndCookieAreReadLeniently) {
  EXPECT_EQ(corpo_lenient(R"({"a":1})"), (Json{{"a", 1}}));
  for (const char* cattivo : {"", "[1]", "{", "3", "null"})
    EXPECT_EQ(corpo_lenient(cattivo), Json::object()) << cattivo;

  EXPECT_EQ(valore_cookie("nvr_sessione=abc", "nvr_sessione"), "abc");
  EXPECT_EQ(valore_cookie("x=1; nvr_sessione=abc; y=2", "nvr_sessione"), "abc");
  EXPECT_EQ(valore_cookie("altro_nvr_sessione=abc", "nvr_sessione"), "");
  EXPECT_EQ(valore_cookie("nvr_sessione_x=abc", "nvr_sessione"), "");
  EXPECT_EQ(valore_cookie("", "nvr_sessione"), "");
}

}  // namespace
}  // namespace nvr::autonomo

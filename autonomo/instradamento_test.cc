// The router and the cookie reading, which every request goes through.
#include "autonomo/instradamento.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace nvr::autonomo {
namespace {

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

// A shortcut answers only for the rule instrada() would pick, and its silence leaves the view.
TEST(InstradamentoTest, ShortcutBelongsToItsRule) {
  Instradatore app;
  auto vista = [](const Richiesta&) { return Risposta{}; };
  app.add_url_rule("/api/x/<int:rid>", "x_leggi", vista, {"GET"});
  app.add_url_rule("/api/x/<int:rid>", "x_elimina", vista, {"DELETE"});
  app.aggiungi_scorciatoia("x_leggi", [](const Richiesta& r) -> std::optional<Risposta> {
    if (*r.rid == 2) return Risposta{};
    return std::nullopt;
  });
  EXPECT_THROW(app.aggiungi_scorciatoia("y", nullptr), std::runtime_error);
  auto risponde = [&](const char* metodo, const char* percorso) {
    Richiesta r;
    r.metodo = metodo;
    return app.instrada_subito(percorso, r).has_value();
  };
  EXPECT_TRUE(risponde("GET", "/api/x/2"));
  EXPECT_TRUE(risponde("HEAD", "/api/x/2"));
  EXPECT_FALSE(risponde("GET", "/api/x/1"));
  EXPECT_FALSE(risponde("DELETE", "/api/x/2"));  // x_elimina, which has no shortcut
}

TEST(InstradamentoTest, SessionCookieIsFoundByItsWholeName) {
  EXPECT_EQ(valore_cookie("nvr_sessione=abc", "nvr_sessione"), "abc");
  EXPECT_EQ(valore_cookie("x=1; nvr_sessione=abc; y=2", "nvr_sessione"), "abc");
  EXPECT_EQ(valore_cookie("altro_nvr_sessione=abc", "nvr_sessione"), "");
  EXPECT_EQ(valore_cookie("nvr_sessione_x=abc", "nvr_sessione"), "");
  EXPECT_EQ(valore_cookie("", "nvr_sessione"), "");
}

}  // namespace
}  // namespace nvr::autonomo

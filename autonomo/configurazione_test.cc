#include "autonomo/configurazione.h"

#include <gtest/gtest.h>

namespace nvr::autonomo {
namespace {

// Each bad file gives one line naming the key (or the line) and the reason.
TEST(Configurazione, ValoriErratiNominanoLaChiave) {
  const struct {
    const char* testo;
    const char* messaggio;
  } casi[] = {
      {"porta = ottanta", "Configurazione /e/n.conf, chiave porta: deve essere un numero"},
      {"porta = 0", "chiave porta: deve essere"},
      {"porta = 65536", "chiave porta: deve essere"},
      {"porta = 443 # https", "chiave porta: deve essere"},
      {"indirizzo = 300.1.1.1", "chiave indirizzo: non e' un indirizzo IPv4"},
      {"indirizzo = ::", "chiave indirizzo:"},
      {"dati = nvr-dati", "chiave dati: serve un percorso assoluto"},
      {"fuso = Europe/Rome; rm", "chiave fuso:"},
      {"tls_cert = /c.pem", "chiave tls_chiave: manca"},
      {"tls_chiave = /k.pem", "chiave tls_cert: manca"},
      {"\n# commento\nporta 8090", "Configurazione /e/n.conf, riga 3: manca '='"},
      {"porto = 8090", "riga 1: chiave sconosciuta: porto"},
      {"porta = 1\nporta = 2", "riga 2: chiave porta ripetuta"},
  };
  for (const auto& caso : casi) {
    auto c = interpreta_configurazione(caso.testo, "/e/n.conf");
    ASSERT_FALSE(c.ok()) << caso.testo;
    EXPECT_NE(c.errore().messaggio.find(caso.messaggio), std::string::npos)
        << caso.testo << " -> " << c.errore().messaggio;
    EXPECT_EQ(c.errore().messaggio.find('\n'), std::string::npos);
  }
}

TEST(Configurazione, FileCompleto) {
  auto c = interpreta_configurazione(
      "# nvr\r\n\n  indirizzo = 0.0.0.0\nporta=8443\t\ndati = \"/srv/nvr dati\"\n"
      "fuso = America/Argentina/Buenos_Aires\ntls_cert =\ntls_chiave = \n",
      "f");
  ASSERT_TRUE(c.ok()) << c.errore().messaggio;
  EXPECT_EQ(c.valore().indirizzo, "0.0.0.0");
  EXPECT_EQ(c.valore().porta, 8443);
  EXPECT_EQ(c.valore().dati, "/srv/nvr dati");
  EXPECT_EQ(c.valore().fuso, "America/Argentina/Buenos_Aires");
  EXPECT_FALSE(c.valore().tls_cert);  // an empty value leaves the key unset
}

TEST(Configurazione, FileIlleggibile) {
  auto c = leggi_configurazione("/nessuna/cartella/nvr.conf");
  ASSERT_FALSE(c.ok());
  EXPECT_EQ(c.errore().messaggio,
            "Configurazione /nessuna/cartella/nvr.conf non leggibile: No such file or directory");
}

}  // namespace
}  // namespace nvr::autonomo

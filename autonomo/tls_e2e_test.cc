// The program over HTTPS: the self-signed certificate it makes, trusted by a client that checks
// it, the session cookie kept off plain connections, and the TLS files it refuses at start.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "autonomo/programma_di_prova.h"
#include "testing/ambiente.h"

namespace nvr::autonomo {
namespace {

using prova::Programma;

TEST(TlsE2eTest, SelfSignedCertificateIsMadeOnceAndServesHttps) {
  testing::CartellaTemporanea t;
  const std::string cert = t / "dati/tls/certificato.pem";
  std::string primo;
  for (int avvio = 0; avvio < 2; ++avvio) {
    auto p = Programma::su(t / "dati", {"--tls-autofirmato"});
    const std::string password = avvio == 0 ? p->password() : "";
    ASSERT_TRUE(p->pronto()) << p->errori();
    struct stat info {};
    ASSERT_EQ(::stat((t / "dati/tls/chiave.pem").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    if (avvio == 1) {
      EXPECT_EQ(testing::leggi_file(cert), primo) << "the second start made a new certificate";
      break;
    }
    primo = testing::leggi_file(cert);

    httplib::SSLClient c("127.0.0.1", p->porta());
    c.set_ca_cert_path(cert.c_str());
    c.enable_server_certificate_verification(true);
    auto salute = c.Get("/api/salute");
    ASSERT_TRUE(salute) << httplib::to_string(salute.error());
    EXPECT_EQ(salute->status, 200) << salute->body;
    auto login = c.Post("/api/accesso", Json{{"password", password}}.dump(), "application/json");
    ASSERT_TRUE(login);
    EXPECT_EQ(login->status, 200) << login->body;
    EXPECT_TRUE(login->get_header_value("Set-Cookie").ends_with("; Secure"));
    EXPECT_EQ(p->get("/api/salute").status, 0) << "plain HTTP answered on the HTTPS port";
  }
}

TEST(TlsE2eTest, BadTlsFilesStopTheStartWithOneLine) {
  testing::CartellaTemporanea t;
  const std::string manca = t / "manca.pem", rotto = t / "rotto.pem";
  std::ofstream(rotto) << "non e' un certificato\n";
  struct Caso {
    std::vector<std::string> argomenti;
    std::string riga;
  };
  const Caso casi[] = {
      {{"--tls-cert", manca, "--tls-chiave", rotto},
       "File del certificato TLS non leggibile: " + manca + " (non esiste)"},
      {{"--tls-cert", rotto, "--tls-chiave", rotto},
       "File del certificato TLS non valido (serve un PEM): " + rotto},
      {{"--tls-cert", rotto, "--tls-autofirmato"},
       "Manca --tls-chiave: serve insieme a --tls-cert"},
  };
  for (const Caso& c : casi) {
    auto p = Programma::su(t / "dati", c.argomenti);
    EXPECT_EQ(p->fine(20), 2) << c.riga;
    EXPECT_EQ(p->errori(), c.riga + "\n");
  }
}

}  // namespace
}  // namespace nvr::autonomo

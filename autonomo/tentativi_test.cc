#include "autonomo/tentativi.h"

#include <gtest/gtest.h>

#include "autonomo/accesso.h"

namespace nvr::autonomo {
namespace {

TEST(TentativiTest, WrongPasswordsSlowDownThenLockTheAddress) {
  struct Caso {
    const char* nome;
    Tentativi prima;
    double adesso;
    int falliti;
    double attesa;
    double blocco;  // secondi_di_blocco right after
  };
  const Caso casi[] = {
      {"first failure", {}, 1000, 1, 1, 0},
      {"third in a row waits longer", {2, 990, 0}, 1000, 3, 3, 0},
      {"the tenth locks at once, without waiting", {9, 990, 0}, 1000, 10, 0, 900},
      {"old failures are forgotten", {9, 99, 0}, 1000, 1, 1, 0},
      {"after a lock ran out the count starts again", {10, 1000, 1900}, 1900, 1, 1, 0},
  };
  const RegoleTentativi regole;
  for (const Caso& c : casi) {
    DopoFallimento d = dopo_fallimento(c.prima, c.adesso, regole);
    EXPECT_EQ(d.tentativi.falliti, c.falliti) << c.nome;
    EXPECT_DOUBLE_EQ(d.attesa, c.attesa) << c.nome;
    EXPECT_DOUBLE_EQ(secondi_di_blocco(d.tentativi, c.adesso), c.blocco) << c.nome;
  }
  EXPECT_DOUBLE_EQ(secondi_di_blocco({10, 1000, 1900}, 1500), 400);
}

TEST(TentativiTest, AFullTableDropsForgottenRecordsBeforeLockedOnes) {
  RegoleTentativi regole;
  regole.indirizzi_massimi = 2;
  std::map<std::string, Tentativi> tabella = {
      {"bloccato", {10, 100, 1000}}, {"dimenticato", {1, 10, 0}}, {"recente", {1, 500, 0}}};
  pota_tentativi(tabella, 600, regole);
  EXPECT_EQ(tabella.size(), 2u);
  EXPECT_FALSE(tabella.count("dimenticato"));
  tabella["altro"] = {1, 550, 0};  // all still matter: the oldest failure goes
  pota_tentativi(tabella, 600, regole);
  EXPECT_EQ(tabella.size(), 2u);
  EXPECT_FALSE(tabella.count("bloccato"));
}

// The owner at another address logs in while a guesser's address is locked out.
TEST(TentativiTest, AccessoLocksOutOnlyTheGuessingAddress) {
  RegoleTentativi regole;
  regole.falliti_per_blocco = 2;
  regole.attesa_per_fallito = 0.01;
  Accesso accesso(impronta_password("giusta"), regole);
  EXPECT_FALSE(accesso.accedi("sbagliata", "192.0.2.1").token);
  EXPECT_EQ(accesso.accedi("sbagliata", "192.0.2.1").riprova_fra, 900);
  auto ladro = accesso.accedi("giusta", "192.0.2.1");  // even the right password waits
  EXPECT_FALSE(ladro.token);
  EXPECT_GT(ladro.riprova_fra, 0);
  auto padrone = accesso.accedi("giusta", "192.0.2.2");
  ASSERT_TRUE(padrone.token);
  EXPECT_TRUE(accesso.valida(*padrone.token));
}

}  // namespace
}  // namespace nvr::autonomo

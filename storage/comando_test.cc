#include "storage/comando.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "storage/con_timeout.h"
#include "testing/ambiente.h"
#include "testing/processi.h"

namespace nvr {
namespace {

using testing::CartellaTemporanea;
using testing::leggi_file;

double secondi_da(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Alive and not a zombie.
bool vivo(pid_t pid) { return testing::stato_processo(pid).value_or('Z') != 'Z'; }

TEST(ComandoTest, ResultsOfRealPrograms) {
  RisultatoComando r = _comando({"sh", "-c", "echo fuori; echo dentro >&2; exit 3"});
  EXPECT_EQ(r.codice, 3);
  EXPECT_EQ(r.out, "fuori\n");
  EXPECT_EQ(r.err, "dentro\n");

  r = _comando({"programma-che-non-esiste-davvero", "-x"});
  EXPECT_EQ(r.codice, 127);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "comando non presente: programma-che-non-esiste-davvero");

  r = _comando({"sh", "-c", "kill -9 $$"});
  EXPECT_EQ(r.codice, -9);

  // More output than a pipe holds must not stall the child.
  r = _comando({"head", "-c", "3000000", "/dev/zero"});
  EXPECT_EQ(r.codice, 0);
  EXPECT_EQ(r.out.size(), 3000000u);

  r = _comando({"cat"});  // standard input is the null device, so cat ends at once
  EXPECT_EQ(r.codice, 0);
  EXPECT_EQ(r.out, "");

  r = _comando({"/etc/passwd"});
  EXPECT_EQ(r.codice, 1);
  EXPECT_FALSE(r.err.empty());
}

TEST(ComandoTest, TimeOutKillsTheCommandAndItsChildren) {
  CartellaTemporanea t;
  auto t0 = std::chrono::steady_clock::now();
  RisultatoComando r = _comando(
      {"sh", "-c", "sleep 30 & echo $! > " + (t / "figlio") + "; echo $$ > " + (t / "padre") +
                       "; echo parziale; wait"},
      0.7);
  double durata = secondi_da(t0);
  EXPECT_EQ(r.codice, 124);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "tempo scaduto");
  EXPECT_LT(durata, 3.0);
  pid_t padre = std::stoi(leggi_file(t / "padre"));
  pid_t figlio = std::stoi(leggi_file(t / "figlio"));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the grandchild's reaper is init
  EXPECT_FALSE(vivo(padre));
  EXPECT_FALSE(vivo(figlio));
}

TEST(ConTimeoutTest, AHungCallIsCutOffAndLeftToFinishSafely) {
  auto t0 = std::chrono::steady_clock::now();
  auto grande = std::make_shared<std::vector<int>>(1000, 7);
  auto esito = _con_timeout(
      [grande] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        (*grande)[999] = 8;  // touches what it owns after the caller has gone
        return (*grande)[0];
      },
      0.3);
  EXPECT_LT(secondi_da(t0), 1.0);
  ASSERT_FALSE(esito.ok());
  EXPECT_EQ(esito.errore().codice, kFilesystemBloccato);
  EXPECT_EQ(esito.errore().messaggio, "filesystem bloccato");

  auto valore = _con_timeout([] { return std::string("ok"); }, 2);
  ASSERT_TRUE(valore.ok());
  EXPECT_EQ(valore.valore(), "ok");

  auto lancia = _con_timeout([]() -> int { throw std::runtime_error("disco rotto"); }, 2);
  ASSERT_FALSE(lancia.ok());
  EXPECT_EQ(lancia.errore().codice, kErroreChiamata);
  EXPECT_EQ(lancia.errore().messaggio, "disco rotto");
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // let the abandoned call end
}

}  // namespace
}  // namespace nvr

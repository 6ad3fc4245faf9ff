#include "storage/prontezza.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

constexpr double T = 1'000'000.0;

TEST(ProntezzaTest, MountIsRetriedAtMostEvery30SecondsAndADeadOneDetachedFirst) {
  using A = AzioneMontaggio;
  const MountFallito mai{};
  const std::string msg = "Unita' USB non collegata: Unita' non trovata (staccata?)";
  struct Caso {
    VistaMontaggio vista;
    double fallito_fa;  // < 0: never failed
    A azione;
  } casi[] = {
      {{false, "/media/x", false, false}, -1, A::nessuna},  // a local folder mounts nothing
      {{true, "", false, false}, -1, A::nessuna},           // no mount point named
      {{true, "/media/x", true, true}, 5, A::nessuna},      // alive: the old failure is moot
      {{true, "/media/x", false, false}, -1, A::rimonta},
      {{true, "/media/x", false, false}, 29.9, A::aspetta},
      {{true, "/media/x", false, false}, 30.0, A::rimonta},
      {{true, "/media/x", true, false}, -1, A::stacca_e_rimonta},
      {{true, "/media/x", true, false}, 10, A::aspetta},
  };
  for (const Caso& c : casi) {
    MountFallito ultimo = c.fallito_fa < 0 ? mai : MountFallito{T - c.fallito_fa, msg};
    VerdettoMontaggio v = valuta_montaggio(c.vista, ultimo, T);
    EXPECT_EQ(v.azione, c.azione) << c.vista.mountpoint << " " << c.vista.montato << c.vista.vivo
                                  << " " << c.fallito_fa;
    EXPECT_EQ(v.messaggio, c.azione == A::aspetta ? msg : "");
  }
}

TEST(ProntezzaTest, FolderFollowsTheDriveToItsNewMountPoint) {
  struct Caso {
    const char *cartella, *vecchio, *nuovo, *attesa;
  } casi[] = {
      {"/media/zuna_nvr/DISCO/nvr", "/media/zuna_nvr/DISCO", "/media/u/DISCO1",
       "/media/u/DISCO1/nvr"},
      {"/media/zuna_nvr/DISCO/a/b", "/media/zuna_nvr/DISCO/", "/mnt/d/", "/mnt/d/a/b"},
      {"/media/zuna_nvr/DISCO", "/media/zuna_nvr/DISCO", "/mnt/d", "/mnt/d"},
  };
  for (const Caso& c : casi)
    EXPECT_EQ(cartella_seguita(c.cartella, c.vecchio, c.nuovo), c.attesa) << c.cartella;
}

TEST(ProntezzaTest, FullOnlyWhenTheSpaceIsKnownAndBelowTheFloor) {
  EXPECT_FALSE(sotto_la_soglia(std::nullopt, 5));
  EXPECT_TRUE(sotto_la_soglia(Spazio{100, 4.9, 95}, 5));
  EXPECT_FALSE(sotto_la_soglia(Spazio{100, 5.0, 95}, 5));
  EXPECT_FALSE(sotto_la_soglia(Spazio{100, 0.0, 100}, 0)) << "a floor of 0 never stops recording";
  EXPECT_EQ(messaggio_spazio_esaurito(0.26), "Spazio esaurito sull'archivio (0.3 GB liberi)");
}

}  // namespace
}  // namespace nvr

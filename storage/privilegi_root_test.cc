// Root rights and folder probes as they behave for real: as another user, and on real mounts.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "core/stato.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "testing/ambiente.h"
#include "testing/sonda.h"

namespace nvr {
namespace {

using testing::CartellaTemporanea;

// What _radice and _intesta answer to an unprivileged server: "code|message|owned".
const bool kSonda = testing::registra_sonda("NVR_SONDA_RADICE", [](const std::string& cartella) {
  RisultatoComando r = _radice({"true"}, 10);
  return std::to_string(r.codice) + "|" + r.err + "|" + std::to_string(_intesta(cartella));
});

class PrivilegiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount e cambio di utente)";
  }

  // As user nobody with this PATH and no USER/LOGNAME, so the name comes from the password
  // database.
  std::string sonda_come_nobody(const std::string& path, const std::string& cartella) {
    return testing::sonda_come_nobody({"PATH=" + path, "NVR_SONDA_RADICE=" + cartella});
  }
};

TEST_F(PrivilegiTest, UnprivilegedUserWithoutPasswordlessSudoIsTold) {
  CartellaTemporanea t;  // root's, mode 0700: nobody cannot write there nor take it over
  std::string atteso_sudo =
      "126|il server gira come utente nobody (non root) e sudo chiede la password: avvialo con  "
      "sudo  oppure dal servizio zuna_os (systemctl start zuna_os)|0";
  if (programma_presente("sudo")) {
    EXPECT_EQ(sonda_come_nobody("/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", t.percorso()),
              atteso_sudo);
  }

  CartellaTemporanea vuota;  // a PATH without sudo
  ::chmod(vuota.percorso().c_str(), 0755);
  ::symlink("/usr/bin/env", (vuota / "env").c_str());
  EXPECT_EQ(sonda_come_nobody(vuota.percorso(), t.percorso()),
            "126|il server gira come utente nobody (non root) e sudo non c'e': avvialo come "
            "root|0");
}

TEST_F(PrivilegiTest, ReadOnlyMountIsRecognisedAndCannotBeTakenOver) {
  CartellaTemporanea t;
  std::string punto = t / "ro";
  std::filesystem::create_directory(punto);
  ASSERT_EQ(::mount("tmpfs", punto.c_str(), "tmpfs", MS_RDONLY, "size=1m"), 0)
      << "tmpfs in sola lettura non montabile";
  EXPECT_TRUE(_sola_lettura(punto));
  EXPECT_FALSE(_scrivibile(punto));
  EXPECT_FALSE(_intesta(punto));  // chown and chmod run, and fail, on a read-only filesystem
  auto [ok, msg] = _mkdir(punto + "/sotto");
  EXPECT_FALSE(ok);
  EXPECT_FALSE(msg.empty());
  ASSERT_EQ(::umount(punto.c_str()), 0);
}

}  // namespace
}  // namespace nvr

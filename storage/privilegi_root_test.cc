// Root rights and folder probes as they behave for real: as another user, and on real mounts.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "core/stato.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "testing/ambiente.h"

namespace nvr {
namespace {

using testing::CartellaTemporanea;

// When this binary is started again as another user with NVR_SONDA_RADICE set, it only answers
// what _radice and _intesta say there, and leaves before any test runs.
const bool kSonda = [] {
  const char* cartella = std::getenv("NVR_SONDA_RADICE");
  if (!cartella) return false;
  RisultatoComando r = _radice({"true"}, 10);
  bool intestata = _intesta(cartella);
  std::printf("%d|%s|%d\n", r.codice, r.err.c_str(), intestata ? 1 : 0);
  std::fflush(stdout);
  std::_Exit(0);
}();

class PrivilegiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount e cambio di utente)";
  }

  // Runs the probe as user nobody with the given PATH and no USER/LOGNAME, so the name comes
  // from the password database. Answers "code|message|owned".
  std::string sonda_come_nobody(const std::string& path, const std::string& cartella) {
    std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    RisultatoComando r = _comando({"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                                   "env", "-i", "PATH=" + path, "NVR_SONDA_RADICE=" + cartella,
                                   self},
                                  60);
    EXPECT_EQ(r.codice, 0) << r.err;
    return r.out;
  }
};

TEST_F(PrivilegiTest, UnprivilegedUserWithoutPasswordlessSudoIsTold) {
  CartellaTemporanea t;  // root's, mode 0700: nobody cannot write there nor take it over
  std::string atteso_sudo =
      "126|il server gira come utente nobody (non root) e sudo chiede la password: avvialo con  "
      "sudo  oppure dal servizio zuna_os (systemctl start zuna_os)|0\n";
  if (programma_presente("sudo")) {
    EXPECT_EQ(sonda_come_nobody("/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", t.percorso()),
              atteso_sudo);
  }

  CartellaTemporanea vuota;  // a PATH without sudo
  ::chmod(vuota.percorso().c_str(), 0755);
  ::symlink("/usr/bin/env", (vuota / "env").c_str());
  EXPECT_EQ(sonda_come_nobody(vuota.percorso(), t.percorso()),
            "126|il server gira come utente nobody (non root) e sudo non c'e': avvialo come "
            "root|0\n");
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

  ASSERT_EQ(::mount("tmpfs", punto.c_str(), "tmpfs", 0, "size=1m,mode=0700,uid=65534"), 0);
  EXPECT_FALSE(_sola_lettura(punto));
  EXPECT_TRUE(_scrivibile(punto));  // root writes anywhere writable
  ASSERT_EQ(::umount(punto.c_str()), 0);
}

}  // namespace
}  // namespace nvr

// Network shares: this kernel cannot mount CIFS or NFS, so a stand-in mount records the command
// lines and the credentials file it is handed, and answers as each test arranges. Everything
// else (folders, root rights, the credentials file) is real.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>

#include "core/stato.h"
#include "storage/comando.h"
#include "storage/rete.h"
#include "testing/processi.h"
#include "testing/stand_in.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;

using Esito3 = std::tuple<bool, std::string, std::string>;

const char* kOpzioni = "uid=0,gid=0,file_mode=0666,dir_mode=0777,iocharset=utf8,soft";

class ReteRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount eseguito direttamente)";
    azzera_stato_per_test();
    imposta_radice_montaggi_per_test(radice_.percorso());
    finte_.mount_registratore();
  }
  void TearDown() override { azzera_stato_per_test(); }

  // The credentials files left in the temporary folder.
  std::vector<std::string> credenziali_rimaste() const {
    std::vector<std::string> fuori;
    for (const auto& e : fs::directory_iterator(tmp_.percorso()))
      fuori.push_back(e.path().filename().string());
    return fuori;
  }

  // The options of call `n`, with the credentials path checked and replaced by "*".
  std::string opzioni(int n) {
    std::string o = finte_.chiamate_mount().at(n - 1).at(3);
    const std::string chiave = ",credentials=";
    auto a = o.find(chiave);
    if (a == std::string::npos) return o;
    a += chiave.size();
    auto b = o.find(',', a);
    fs::path p = o.substr(a, b - a);
    std::string nome = p.filename().string();
    EXPECT_EQ(p.parent_path(), tmp_.percorso());
    EXPECT_TRUE(nome.rfind("zuna_nvr_", 0) == 0 && nome.size() > 14 &&
                nome.substr(nome.size() - 5) == ".cred")
        << p;
    return o.substr(0, a) + "*" + (b == std::string::npos ? "" : o.substr(b));
  }

  CartellaTemporanea radice_;
  CartellaTemporanea tmp_;
  testing::VariabileDiProva tmpdir_{"TMPDIR", tmp_.percorso()};
  testing::Controfigure finte_;
};

TEST_F(ReteRootTest, WrongPasswordStopsAfterTheFirstVersion) {
  finte_.rispondi_mount(1, 32, "mount error(13): Permission denied");
  Json dest{{"proto", "smb"},
            {"server", "nas"},
            {"share", "/video/"},
            {"utente", "mario"},
            {"password", "sbagliata"}};
  EXPECT_EQ(monta_rete(dest),
            Esito3(false,
                   "mount: mount error(13): Permission denied  (utente o password della cartella "
                   "condivisa non accettati)",
                   ""));
  std::string mp = radice_ / "rete_nas_video";
  ASSERT_EQ(finte_.chiamate_mount().size(), 1u);
  EXPECT_EQ(finte_.chiamate_mount()[0],
            (std::vector<std::string>{"-t", "cifs", "-o", finte_.chiamate_mount()[0][3],
                                      "//nas/video", mp}));
  EXPECT_EQ(opzioni(1), std::string(kOpzioni) + ",credentials=*,vers=3.0");
  EXPECT_EQ(finte_.credenziali(1), "username=mario\npassword=sbagliata\n");
  EXPECT_EQ(finte_.modo_credenziali(1), "600");
  EXPECT_TRUE(credenziali_rimaste().empty());
}

TEST_F(ReteRootTest, OldServerIsReachedWithSmb1AfterTwoRefusals) {
  finte_.rispondi_mount(1, 32, "mount error(95): Operation not supported");
  finte_.rispondi_mount(2, 32, "mount error(95): Operation not supported");
  Json dest{{"server", "192.168.1.10"},
            {"share", "video"},
            {"utente", " OFFICE\\mario "},
            {"password", "p4ss word"}};
  std::string mp = radice_ / "rete_192.168.1.10_video";
  EXPECT_EQ(monta_rete(dest), Esito3(true, "Montata", mp));
  ASSERT_EQ(finte_.chiamate_mount().size(), 3u);
  const char* versioni[] = {"3.0", "2.1", "1.0"};
  for (int n = 1; n <= 3; ++n) {
    EXPECT_EQ(opzioni(n), std::string(kOpzioni) + ",credentials=*,vers=" + versioni[n - 1]);
    EXPECT_EQ(finte_.chiamate_mount()[n - 1][4], "//192.168.1.10/video");
    EXPECT_EQ(finte_.credenziali(n), "domain=OFFICE\nusername=mario\npassword=p4ss word\n");
  }
  EXPECT_TRUE(credenziali_rimaste().empty());
}

TEST_F(ReteRootTest, CredentialsCannotInjectLinesAndNeverOutliveTheCall) {
  for (int n = 1; n <= 3; ++n)
    finte_.rispondi_mount(n, 32, "mount error(95): Operation not supported");
  Json dest{{"server", "nas"},
            {"share", "video"},
            {"utente", "mario\nusername=root"},
            {"password", "x\npassword=y\n"}};
  EXPECT_EQ(monta_rete(dest), Esito3(false, "mount: mount error(95): Operation not supported", ""));
  ASSERT_EQ(finte_.chiamate_mount().size(), 3u);
  EXPECT_EQ(finte_.credenziali(3), "username=mariousername=root\npassword=xpassword=y\n");
  EXPECT_TRUE(credenziali_rimaste().empty());
}

TEST_F(ReteRootTest, GuestNeedsNoCredentialsFile) {
  finte_.rispondi_mount(1, 32, "mount error(112): Host is down");
  EXPECT_EQ(monta_rete(Json{{"server", "nas"}, {"share", "video"}}),
            Esito3(false,
                   "mount: mount error(112): Host is down  (server non raggiungibile: controlla "
                   "indirizzo e rete)",
                   ""));
  ASSERT_EQ(finte_.chiamate_mount().size(), 1u);  // the network is down: no older version helps
  EXPECT_EQ(opzioni(1), std::string(kOpzioni) + ",guest,vers=3.0");
  EXPECT_FALSE(finte_.credenziali(1));
  EXPECT_TRUE(credenziali_rimaste().empty());
}

TEST_F(ReteRootTest, NfsIsMountedSoftWithShortTimeouts) {
  Json dest{{"proto", "NFS"}, {"server", "nas"}, {"share", "/export/video/"}, {"utente", "x"}};
  std::string mp = radice_ / "rete_nas_export_video";
  EXPECT_EQ(monta_rete(dest), Esito3(true, "Montata", mp));
  EXPECT_EQ(finte_.chiamate_mount(),
            (std::vector<std::vector<std::string>>{
                {"-t", "nfs", "-o", "soft,timeo=50,retrans=2", "nas:/export/video", mp}}));
}

TEST_F(ReteRootTest, ShareAlreadyMountedIsNotMountedAgain) {
  std::string mp = radice_ / "rete_nas_video";
  fs::create_directories(mp);
  ASSERT_EQ(::mount("tmpfs", mp.c_str(), "tmpfs", 0, "size=1m"), 0);
  EXPECT_EQ(monta_rete(Json{{"server", "nas"}, {"share", "video"}}),
            Esito3(true, "Gia' montata", mp));
  ::umount2(mp.c_str(), MNT_DETACH);
  EXPECT_TRUE(finte_.chiamate_mount().empty());
}

}  // namespace
}  // namespace nvr

// Network shares: this kernel cannot mount CIFS or NFS, so a stand-in mount records the command
// lines and the credentials file it is handed, and answers as each test arranges. Everything
// else (folders, root rights, the credentials file) is real.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>

#include "core/stato.h"
#include "storage/comando.h"
#include "storage/rete.h"
#include "testing/azzera.h"
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
  std::string opzioni(const testing::Controfigure& finte, std::size_t n) {
    std::string o = finte.chiamate_mount().at(n - 1).at(3);
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
};

// Each case: the share, the errors the first mount calls answer (the rest succeed), the result,
// and every call as the stand-in saw it, with its credentials file when it had one.
TEST_F(ReteRootTest, MountCommandLinesCredentialsAndVersionFallBack) {
  const std::string cifs = kOpzioni;
  const std::string errore95 = "mount error(95): Operation not supported";
  struct Caso {
    Json dest;
    std::vector<std::string> errori;
    bool ok;
    std::string messaggio, cartella;  // cartella: the mount point's name under the root
    std::vector<std::string> opzioni;  // of each call, the credentials path as "*"
    std::string tipo, sorgente;
    std::optional<std::string> credenziali;  // of every call
  };
  const std::vector<std::string> tre = {cifs + ",credentials=*,vers=3.0",
                                        cifs + ",credentials=*,vers=2.1",
                                        cifs + ",credentials=*,vers=1.0"};
  const Caso casi[] = {
      // A wrong password stops after the first version.
      {{{"proto", "smb"}, {"server", "nas"}, {"share", "/video/"}, {"utente", "mario"},
        {"password", "sbagliata"}},
       {"mount error(13): Permission denied"}, false,
       "mount: mount error(13): Permission denied  (utente o password della cartella condivisa "
       "non accettati)",
       "rete_nas_video", {tre[0]}, "cifs", "//nas/video", "username=mario\npassword=sbagliata\n"},
      // An old server is reached with SMB 1 after two refusals; a domain goes on its own line.
      {{{"server", "192.168.1.10"}, {"share", "video"}, {"utente", " OFFICE\\mario "},
        {"password", "p4ss word"}},
       {errore95, errore95}, true, "Montata", "rete_192.168.1.10_video", tre, "cifs",
       "//192.168.1.10/video", "domain=OFFICE\nusername=mario\npassword=p4ss word\n"},
      // Line breaks cannot add lines to the credentials file.
      {{{"server", "nas"}, {"share", "video"}, {"utente", "mario\nusername=root"},
        {"password", "x\npassword=y\n"}},
       {errore95, errore95, errore95}, false, "mount: " + errore95, "rete_nas_video", tre, "cifs",
       "//nas/video", "username=mariousername=root\npassword=xpassword=y\n"},
      // A guest needs no credentials file; with the network down no older version helps.
      {{{"server", "nas"}, {"share", "video"}}, {"mount error(112): Host is down"}, false,
       "mount: mount error(112): Host is down  (server non raggiungibile: controlla indirizzo e "
       "rete)",
       "rete_nas_video", {cifs + ",guest,vers=3.0"}, "cifs", "//nas/video", std::nullopt},
      // NFS is mounted soft with short time-outs, whatever the user.
      {{{"proto", "NFS"}, {"server", "nas"}, {"share", "/export/video/"}, {"utente", "x"}}, {},
       true, "Montata", "rete_nas_export_video", {"soft,timeo=50,retrans=2"}, "nfs",
       "nas:/export/video", std::nullopt},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.dest.dump());
    testing::Controfigure finte;
    finte.mount_registratore();
    for (std::size_t n = 0; n < c.errori.size(); ++n) finte.rispondi_mount(static_cast<int>(n + 1), 32, c.errori[n]);
    std::string mp = radice_ / c.cartella;
    EXPECT_EQ(monta_rete(c.dest), Esito3(c.ok, c.messaggio, c.ok ? mp : ""));
    auto chiamate = finte.chiamate_mount();
    ASSERT_EQ(chiamate.size(), c.opzioni.size());
    for (std::size_t n = 1; n <= chiamate.size(); ++n) {
      EXPECT_EQ(opzioni(finte, n), c.opzioni[n - 1]);
      chiamate[n - 1][3] = c.opzioni[n - 1];
      EXPECT_EQ(chiamate[n - 1], (std::vector<std::string>{"-t", c.tipo, "-o", c.opzioni[n - 1],
                                                           c.sorgente, mp}));
      EXPECT_EQ(finte.credenziali(n), c.credenziali);
      EXPECT_EQ(finte.modo_credenziali(n), c.credenziali ? "600" : std::optional<std::string>());
    }
    EXPECT_TRUE(credenziali_rimaste().empty());
  }
}

TEST_F(ReteRootTest, ShareAlreadyMountedIsNotMountedAgain) {
  testing::Controfigure finte;
  finte.mount_registratore();
  std::string mp = radice_ / "rete_nas_video";
  fs::create_directories(mp);
  ASSERT_EQ(::mount("tmpfs", mp.c_str(), "tmpfs", 0, "size=1m"), 0);
  EXPECT_EQ(monta_rete(Json{{"server", "nas"}, {"share", "video"}}),
            Esito3(true, "Gia' montata", mp));
  ::umount2(mp.c_str(), MNT_DETACH);
  EXPECT_TRUE(finte.chiamate_mount().empty());
}

}  // namespace
}  // namespace nvr

#include "web/api_config.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "core/config.h"
#include "core/db.h"
#include "core/processo.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/cartella_ammessa.h"
#include "testing/stand_in.h"

namespace nvr {
namespace {

using testing::CartellaAmmessa;
using testing::Controfigure;
using testing::HostDiProva;

const char* const kNonAmmessa =
    "Cartella non ammessa: scegli un'unita' USB, una cartella di rete o una sotto /media, /mnt, "
    "/srv, /home";
const char* const kEsterna =
    "Questa cartella sta su un'unita' esterna: sceglila dalla scheda \"Chiavetta / disco USB\" o "
    "\"Cartella di rete\"";

std::string non_montata(const std::string& cartella) {
  return "La cartella " + cartella +
         " non sta sull'unita' (non e' montata): premi di nuovo \"Usa questa unita'\" o "
         "\"Collega\"";
}

Json errore(const std::string& msg) { return Json{{"status", "error"}, {"message", msg}}; }

class ApiConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(srv.ok()) << "non posso creare una cartella sotto /srv";
    _init_db();
    h.aggiungi_camera(3, "Ingresso", "rtsp://127.0.0.1:8554/a");
    h.aggiungi_camera(4, "Garage", "rtsp://127.0.0.1:8554/b");
  }
  void TearDown() override { _ferma_tutto(); }

  static Risposta config(const Json& corpo, const std::string& metodo = "POST") {
    Richiesta r;
    r.metodo = metodo;
    r.corpo = corpo;
    return api_config(r);
  }
  static Risposta camera(const Json& corpo) {
    Richiesta r;
    r.metodo = "POST";
    r.corpo = corpo;
    return api_camera(r);
  }

  // A child standing in for camera `cid`'s recorder; the caller keeps the process to watch it.
  static std::shared_ptr<Processo> registratore_finto(CamId cid) {
    Avvio avvio;
    avvio.argomenti = {"sleep", "60"};
    auto proc = avvia_processo(avvio);
    EXPECT_TRUE(proc.ok());
    Registratore r;
    r.proc = proc.valore();
    r.da = _ora();
    r.motivo = "continua";
    adotta_registratore(cid, r);
    return r.proc;
  }

  static Config salvata(const std::string& cartella, Json dest) {
    Config c;
    c.attivo = 1;
    c.cartella = cartella;
    c.destinazione = dest.is_null() ? Json::object() : std::move(dest);
    c.segmento_sec = 120;
    c.giorni = 7;
    c.spazio_min_gb = 3.5;
    _salva_config(c);
    return c;
  }

  HostDiProva h;
  CartellaAmmessa srv;
};

TEST_F(ApiConfigTest, NumbersAreClampedToTheirRanges) {
  struct Caso {
    const char* chiave;
    Json valore;
    double atteso;
  };
  const Caso casi[] = {
      {"segmento_sec", 10, 60},
      {"segmento_sec", 5000, 1800},
      {"segmento_sec", 0, 300},  // empty: the default, before clamping
      {"segmento_sec", nullptr, 300},
      {"segmento_sec", " 90 ", 90},
      {"segmento_sec", "0", 60},  // a text "0" is not empty
      {"segmento_sec", "99999999999999999999999", 1800},
      {"giorni", 0, 14},
      {"giorni", 1000, 365},
      {"giorni", -3, 1},
      {"spazio_min_gb", 0.1, 0.5},
      {"spazio_min_gb", 1000, 500.0},
      {"spazio_min_gb", "nan", 500.0},
      {"spazio_min_gb", 0, 2.0},
      {"spazio_min_gb", "3.25", 3.25},
      {"spazio_min_gb", 500, 500.0},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(std::string(c.chiave) + " = " + c.valore.dump());
    Risposta r = config(Json{{c.chiave, c.valore}});
    ASSERT_EQ(r.status, 200) << r.corpo.dump();
    Json cfg = leggi_config().come_json();
    EXPECT_DOUBLE_EQ(cfg[c.chiave].get<double>(), c.atteso);
  }

  // Values only read back are clamped too.
  h.sql("UPDATE nvr_config SET segmento_sec=5, giorni=9999, spazio_min_gb=0.01");
  ASSERT_EQ(config(Json::object()).status, 200);
  Config cfg = leggi_config();
  EXPECT_EQ(cfg.segmento_sec, 60);
  EXPECT_EQ(cfg.giorni, 365);
  EXPECT_DOUBLE_EQ(cfg.spazio_min_gb, 0.5);
}

TEST_F(ApiConfigTest, NumberThatCannotBeReadFailsTheRequestAndSavesNothing) {
  struct Caso {
    const char* chiave;
    Json valore;
  };
  const Caso casi[] = {
      {"segmento_sec", "abc"},   {"segmento_sec", Json{{"a", 1}}},
      {"giorni", "1e3"},         {"spazio_min_gb", Json::array({2})},
      {"spazio_min_gb", "0x10"},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(std::string(c.chiave) + " = " + c.valore.dump());
    azzera_motore_per_test();
    try {
      config(Json{{"attivo", 1}, {c.chiave, c.valore}});
      ADD_FAILURE() << "nessuna eccezione";
    } catch (const std::invalid_argument& e) {
      EXPECT_NE(std::string(e.what()).find(c.chiave), std::string::npos) << e.what();
    }
    EXPECT_EQ(leggi_config().attivo, 0);
    EXPECT_FALSE(giro_richiesto());
  }

  // A refused folder is reported before a bad number.
  Risposta r = config(Json{{"cartella", "/etc/x"}, {"segmento_sec", "abc"}});
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(r.corpo, errore(kNonAmmessa));
}

TEST_F(ApiConfigTest, SwitchingOffKeepsTheRestAndStopsEveryRecorder) {
  Config prima = salvata(srv / "archivio", Json{{"tipo", "locale"}});
  auto p3 = registratore_finto(3);
  auto p4 = registratore_finto(4);
  azzera_motore_per_test();

  ::testing::internal::CaptureStdout();
  Risposta r = config(Json{{"attivo", 0}});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] registrazione telecamera 3 fermata (NVR disattivato)\n"
            "[NVR] registrazione telecamera 4 fermata (NVR disattivato)\n");

  ASSERT_EQ(r.status, 200);
  prima.attivo = 0;
  EXPECT_EQ(leggi_config().come_json(), prima.come_json());
  EXPECT_TRUE(p3->terminato());
  EXPECT_TRUE(p4->terminato());
  EXPECT_EQ(p3->codice(), -SIGINT);
  EXPECT_TRUE(registratori_in_corso().empty());
  EXPECT_TRUE(giro_richiesto());

  // Switching on leaves running recorders to the engine.
  auto p5 = registratore_finto(3);
  ASSERT_EQ(config(Json{{"attivo", true}}).status, 200);
  EXPECT_FALSE(p5->terminato());
  EXPECT_EQ(leggi_config().attivo, 1);
}

TEST_F(ApiConfigTest, RefusedFolderAnswers400AndChangesNothing) {
  std::filesystem::create_directories(srv / "nas/nvr");
  std::filesystem::create_symlink(srv / "nas", srv / "collegamento");
  const Json usb_salvata = {{"tipo", "usb"}, {"uuid", "NON-ESISTE"}, {"mountpoint", srv / "disco"}};
  const Json rete_salvata = {
      {"tipo", "rete"}, {"server", "127.0.0.1"}, {"mountpoint", srv / "collegamento"}};
  struct Caso {
    Json salvata;  // destination saved before the request
    Json corpo;
    std::string messaggio;
  };
  const Caso casi[] = {
      {{},
       {{"cartella", " /media/ "}},
       "Scegli o crea una cartella dentro l'unita', non la radice /media"},
      {{},
       {{"cartella", "/mnt/../srv"}},
       "Scegli o crea una cartella dentro l'unita', non la radice /srv"},
      {{},
       {{"cartella", "/media/zuna_nvr/"}},
       "Scegli o crea una cartella dentro l'unita', non la radice /media/zuna_nvr"},
      {{}, {{"cartella", "/etc/x"}}, kNonAmmessa},
      {{}, {{"cartella", "/"}}, kNonAmmessa},
      {{}, {{"cartella", "/media/../../etc/cron.d"}}, kNonAmmessa},
      {{}, {{"cartella", std::string("/srv/x\0/etc", 11)}}, kNonAmmessa},
      // Drives and shares must really be mounted under the chosen folder.
      {{},
       {{"cartella", srv / "disco/nvr"}, {"destinazione", {{"tipo", "usb"}, {"uuid", "X"}}}},
       non_montata(srv / "disco/nvr")},
      {{},
       {{"cartella", "/media/zuna_nvr/nas/nvr"}, {"destinazione", {{"tipo", "rete"}}}},
       non_montata("/media/zuna_nvr/nas/nvr")},
      {usb_salvata, {{"cartella", srv / "disco/nvr"}}, non_montata(srv / "disco/nvr")},
      // A plain folder may not be on external storage.
      {{}, {{"cartella", "/media/zuna_nvr/DISCO/nvr"}, {"destinazione", {{"tipo", ""}}}}, kEsterna},
      {usb_salvata, {{"cartella", srv / "disco/nvr"}, {"destinazione", nullptr}}, kEsterna},
      {rete_salvata,
       {{"cartella", srv / "nas/nvr"}, {"destinazione", {{"tipo", "locale"}}}},
       kEsterna},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.corpo.dump());
    Config prima = salvata("", c.salvata);
    auto p = registratore_finto(3);
    azzera_motore_per_test();
    Json corpo = c.corpo;
    corpo["attivo"] = 0;
    Risposta r = config(corpo);
    EXPECT_EQ(r.status, 400);
    EXPECT_EQ(r.corpo, errore(c.messaggio));
    EXPECT_EQ(leggi_config().come_json(), prima.come_json());
    EXPECT_FALSE(p->terminato());
    EXPECT_FALSE(giro_richiesto());
    _ferma_tutto();
  }
}

TEST_F(ApiConfigTest, AcceptedFolderIsStoredNormalised) {
  const std::string s = srv.percorso();
  const Json usb_salvata = {{"tipo", "usb"}, {"uuid", "NON-ESISTE"}, {"mountpoint", srv / "disco"}};
  struct Caso {
    Json salvata;
    Json cartella;
    std::string attesa;
  };
  const Caso casi[] = {
      {{}, "  " + s + "//archivio/  ", s + "/archivio"},
      {{}, "\t" + s + "/a/./b/../c/\n", s + "/a/c"},
      {{}, s + "/gia'/esistente", s + "/gia'/esistente"},
      {{}, "", ""},
      {{}, nullptr, ""},
      // Next to the saved drive's mount point, not inside it.
      {usb_salvata, s + "/disco2/nvr", s + "/disco2/nvr"},
  };
  std::filesystem::create_directories(s + "/gia'/esistente");
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.cartella.dump());
    salvata(s + "/prima", c.salvata);
    Risposta r = config(Json{{"cartella", c.cartella}, {"destinazione", {{"tipo", "locale"}}}});
    ASSERT_EQ(r.status, 200) << r.corpo.dump();
    EXPECT_EQ(leggi_config().cartella, c.attesa);
  }
}

TEST_F(ApiConfigTest, SharePasswordNeverLeavesAndSurvivesAnEmptyField) {
  const Json dest = {{"tipo", "rete"},
                     {"proto", "smb"},
                     {"server", "127.0.0.1"},
                     {"share", "video"},
                     {"utente", "anna"}};
  Json con_password = dest;
  con_password["password"] = "segreta";
  salvata(srv / "nas", con_password);
  auto senza_password = [](const Risposta& r) {
    std::string testo = r.corpo.dump();
    return testo.find("segreta") == std::string::npos && testo.find("nuova") == std::string::npos &&
           testo.find("password") == std::string::npos;
  };

  Risposta get = config(Json::object(), "GET");
  ASSERT_EQ(get.status, 200);
  std::vector<std::string> chiavi;
  for (const auto& [k, v] : get.corpo.items()) chiavi.push_back(k);
  EXPECT_EQ(chiavi, (std::vector<std::string>{"config", "telecamere", "stato", "ffmpeg"}));
  EXPECT_EQ(get.corpo["config"]["destinazione"]["utente"], "anna");
  EXPECT_EQ(get.corpo["telecamere"].size(), 2u);
  EXPECT_TRUE(senza_password(get)) << get.corpo.dump();

  for (std::optional<Json> vuota :
       {std::optional<Json>(""), std::optional<Json>(nullptr), std::optional<Json>()}) {
    Json d = dest;
    if (vuota) d["password"] = *vuota;
    Risposta r = config(Json{{"destinazione", d}});
    ASSERT_EQ(r.status, 200);
    EXPECT_TRUE(senza_password(r)) << r.corpo.dump();
    EXPECT_EQ(leggi_config().destinazione["password"], "segreta");
  }

  Json d = dest;
  d["password"] = "nuova";
  Risposta r = config(Json{{"destinazione", d}});
  EXPECT_TRUE(senza_password(r)) << r.corpo.dump();
  EXPECT_EQ(leggi_config().destinazione["password"], "nuova");

  // A destination of another kind does not inherit it.
  ASSERT_EQ(config(Json{{"destinazione", {{"tipo", "locale"}}}}).status, 200);
  EXPECT_EQ(leggi_config().destinazione, (Json{{"tipo", "locale"}}));
}

TEST_F(ApiConfigTest, UsbDestinationIsCompletedFromTheDriveFound) {
  Controfigure cf;
  cf.lsblk_fisso(R"({"blockdevices": [
    {"name": "sdz", "path": "/dev/sdz", "size": 16008609792, "type": "disk", "rm": true,
     "mountpoint": null, "label": null, "fstype": null, "uuid": null, "partuuid": null,
     "tran": "usb", "hotplug": true, "model": "Chiavetta", "vendor": "Marca",
     "children": [
       {"name": "sdz1", "path": "/dev/sdz1", "size": 16000000000, "type": "part", "rm": true,
        "mountpoint": "/media/zuna_nvr/DISCO", "label": "DISCO", "fstype": "exfat",
        "uuid": "AB-12", "partuuid": "zz-01", "tran": null, "hotplug": true, "model": null,
        "vendor": null},
       {"name": "sdz2", "path": "/dev/sdz2", "size": 8000000, "type": "part", "rm": true,
        "mountpoint": null, "label": null, "fstype": "vfat", "uuid": "CD-34",
        "partuuid": "zz-02", "tran": null, "hotplug": true, "model": null, "vendor": null}
     ]}
  ]})");
  struct Caso {
    Json inviata;
    Json salvata;
  };
  const Caso casi[] = {
      {{{"tipo", "usb"}, {"uuid", "AB-12"}},
       {{"tipo", "usb"},
        {"uuid", "AB-12"},
        {"dev", "/dev/sdz1"},
        {"etichetta", "DISCO"},
        {"mountpoint", "/media/zuna_nvr/DISCO"}}},
      // Not mounted: no mount point is made up, the one sent stays; no label becomes "".
      {{{"tipo", "usb"}, {"uuid", "CD-34"}, {"mountpoint", "/media/zuna_nvr/VECCHIO"}},
       {{"tipo", "usb"},
        {"uuid", "CD-34"},
        {"mountpoint", "/media/zuna_nvr/VECCHIO"},
        {"dev", "/dev/sdz2"},
        {"etichetta", ""}}},
      // No such drive: kept as sent.
      {{{"tipo", "usb"}, {"uuid", "FF-99"}, {"dev", 7}},
       {{"tipo", "usb"}, {"uuid", "FF-99"}, {"dev", 7}}},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.inviata.dump());
    Risposta r = config(Json{{"destinazione", c.inviata}});
    ASSERT_EQ(r.status, 200) << r.corpo.dump();
    EXPECT_EQ(leggi_config().destinazione, c.salvata);
  }
}

TEST_F(ApiConfigTest, OddBodiesGetAClearAnswer) {
  Config prima = salvata(srv / "archivio", Json::object());
  // A body that is not an object counts as an empty one.
  for (Json corpo : {Json::array({1, 2}), Json("testo"), Json(nullptr), Json(5)}) {
    Risposta r = config(corpo);
    EXPECT_EQ(r.status, 200) << corpo.dump();
    EXPECT_EQ(leggi_config().come_json(), prima.come_json());
  }
  for (Json corpo : {Json{{"destinazione", "usb"}}, Json{{"destinazione", Json::array({1})}},
                     Json{{"cartella", 42}}, Json{{"cartella", Json::array({"/srv/x"})}}}) {
    SCOPED_TRACE(corpo.dump());
    EXPECT_THROW(config(corpo), std::invalid_argument);
    EXPECT_EQ(leggi_config().come_json(), prima.come_json());
  }
}

TEST_F(ApiConfigTest, CameraWithBadOrUnknownIdIsRefused) {
  auto p = registratore_finto(3);
  struct Caso {
    Json corpo;
    int status;
    const char* messaggio;
  };
  const Caso casi[] = {
      {Json::object(), 400, "Telecamera non valida"},
      {{{"id", "abc"}, {"attiva", false}}, 400, "Telecamera non valida"},
      {{{"id", Json::array({3})}}, 400, "Telecamera non valida"},
      {Json::array({3}), 400, "Telecamera non valida"},
      {{{"id", 99}, {"attiva", false}}, 404, "Telecamera non trovata"},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.corpo.dump());
    Risposta r = camera(c.corpo);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.corpo, errore(c.messaggio));
  }
  EXPECT_FALSE(p->terminato());
  Connessione db = _db();
  EXPECT_TRUE(db.righe("SELECT * FROM nvr_camere").empty());
}

TEST_F(ApiConfigTest, CameraSwitchedOffStopsOnlyItsRecorder) {
  auto p3 = registratore_finto(3);
  auto p4 = registratore_finto(4);
  azzera_motore_per_test();

  ::testing::internal::CaptureStdout();
  Risposta r = camera(Json{{"id", "3"},
                           {"attiva", false},
                           {"modo", "orari"},
                           {"orari", Json::array({Json{{"da", "08:00"}, {"a", "12:00"}}})},
                           {"sconosciuta", 1}});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] registrazione telecamera 3 fermata (telecamera disattivata)\n");
  EXPECT_TRUE(p3->terminato());  // already stopped when the answer comes
  EXPECT_FALSE(p4->terminato());
  EXPECT_TRUE(giro_richiesto());

  ASSERT_EQ(r.status, 200);
  EXPECT_FALSE(_telecamere()[0].attiva);
  EXPECT_EQ(_telecamere()[0].modo, "orari");

  // Switching on leaves the recorder alone; a post_roll that is no number saves nothing.
  ASSERT_EQ(camera(Json{{"id", 4}, {"attiva", true}}).status, 200);
  EXPECT_FALSE(p4->terminato());
  EXPECT_TRUE(_telecamere()[1].attiva);
  EXPECT_THROW(camera(Json{{"id", 4}, {"attiva", false}, {"post_roll", "tanto"}}),
               std::invalid_argument);
  EXPECT_FALSE(p4->terminato());
  EXPECT_TRUE(_telecamere()[1].attiva);
}

}  // namespace
}  // namespace nvr

#include "web/api_config.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "core/config.h"
#include "core/db.h"
#include "core/processo.h"
#include "core/stato.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/cartella_ammessa.h"

namespace nvr {
namespace {

using testing::CartellaAmmessa;
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

  static Risposta config(const Json& corpo, const std::string& metodo = "POST",
                         Risposta (*api)(const Richiesta&) = api_config) {
    Richiesta r;
    r.metodo = metodo;
    r.corpo = corpo;
    return api(r);
  }
  static Risposta camera(const Json& corpo) { return config(corpo, "POST", api_camera); }

  // A child standing in for camera `cid`'s recorder; the caller keeps the process to watch it.
  static std::shared_ptr<Processo> registratore_finto(CamId cid) {
    Registratore r;
    r.proc = avvia_processo({{"sleep", "60"}}).valore();
    adotta_registratore(cid, r);
    return r.proc;
  }

  static Config salvata(const std::string& cartella, Json dest) {
    Config c;
    c.attivo = 1;
    c.cartella = cartella;
    c.destinazione = dest.is_null() ? Json::object() : std::move(dest);
    c.segmento_sec = 120;
    _salva_config(c);
    return c;
  }

  HostDiProva h;
  CartellaAmmessa srv;
};

TEST_F(ApiConfigTest, NumbersAreClampedOrRefused) {
  struct Caso {
    const char* chiave;
    Json valore;
    double atteso;  // NAN: the request fails and saves nothing
  };
  const Caso casi[] = {
      {"segmento_sec", 5000, 1800},    {"segmento_sec", nullptr, 300},
      {"giorni", -3, 1},               {"spazio_min_gb", "nan", 500.0},
      {"segmento_sec", "abc", NAN},    {"spazio_min_gb", "0x10", NAN},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(std::string(c.chiave) + " = " + c.valore.dump());
    azzera_motore_per_test();
    if (std::isnan(c.atteso)) {
      EXPECT_THROW(config(Json{{"attivo", 1}, {c.chiave, c.valore}}), std::invalid_argument);
      EXPECT_EQ(leggi_config().attivo, 0);
      EXPECT_FALSE(giro_richiesto());
      continue;
    }
    ASSERT_EQ(config(Json{{c.chiave, c.valore}}).status, 200);
    EXPECT_DOUBLE_EQ(leggi_config().come_json()[c.chiave].get<double>(), c.atteso);
  }
  // Values only read back are clamped too.
  h.sql("UPDATE nvr_config SET segmento_sec=5, giorni=9999");
  ASSERT_EQ(config(Json::object()).status, 200);
  EXPECT_EQ(leggi_config().segmento_sec, 60);
  EXPECT_EQ(leggi_config().giorni, 365);
}

TEST_F(ApiConfigTest, RefusedFolderAnswers400AndChangesNothing) {
  const Json usb_salvata = {{"tipo", "usb"}, {"uuid", "NON-ESISTE"}, {"mountpoint", srv / "disco"}};
  struct Caso {
    Json salvata;  // destination saved before the request
    Json corpo;
    std::string messaggio;
  };
  const Caso casi[] = {
      {{},
       {{"cartella", "/mnt/../srv"}},
       "Scegli o crea una cartella dentro l'unita', non la radice /srv"},
      {{}, {{"cartella", "/etc/x"}, {"segmento_sec", "abc"}}, kNonAmmessa},
      {usb_salvata, {{"cartella", srv / "disco/nvr"}}, non_montata(srv / "disco/nvr")},
      {{}, {{"cartella", "/media/zuna_nvr/DISCO/nvr"}, {"destinazione", {{"tipo", ""}}}}, kEsterna},
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
  // An accepted one is stored normalised.
  const std::string s = srv.percorso();
  ASSERT_EQ(config(Json{{"cartella", "  " + s + "//a/./b/../c/ "}}).status, 200);
  EXPECT_EQ(leggi_config().cartella, s + "/a/c");
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
  EXPECT_EQ(get.corpo["config"]["destinazione"]["utente"], "anna");
  EXPECT_TRUE(senza_password(get)) << get.corpo.dump();

  for (std::optional<Json> vuota : {std::optional<Json>(""), std::optional<Json>()}) {
    Json d = dest;
    if (vuota) d["password"] = *vuota;
    Risposta r = config(Json{{"destinazione", d}});
    ASSERT_EQ(r.status, 200);
    EXPECT_TRUE(senza_password(r)) << r.corpo.dump();
    EXPECT_EQ(leggi_config().destinazione["password"], "segreta");
  }
  Json d = dest;
  d["password"] = "nuova";
  EXPECT_TRUE(senza_password(config(Json{{"destinazione", d}})));
  EXPECT_EQ(leggi_config().destinazione["password"], "nuova");
  // A destination of another kind does not inherit it.
  ASSERT_EQ(config(Json{{"destinazione", {{"tipo", "locale"}}}}).status, 200);
  EXPECT_EQ(leggi_config().destinazione, (Json{{"tipo", "locale"}}));
}

TEST_F(ApiConfigTest, CameraRequests) {
  auto p3 = registratore_finto(3);
  auto p4 = registratore_finto(4);
  // A missing id and an unknown one are python/test_collega.py's rows (through Flask's body).
  Risposta r = camera(Json::array({3}));
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(r.corpo, errore("Telecamera non valida"));
  EXPECT_FALSE(p3->terminato());
  azzera_motore_per_test();

  ::testing::internal::CaptureStdout();
  r = camera(Json{{"id", "3"}, {"attiva", false}, {"modo", "orari"}});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] registrazione telecamera 3 fermata (telecamera disattivata)\n");
  ASSERT_EQ(r.status, 200);
  EXPECT_TRUE(p3->terminato());  // already stopped when the answer comes
  EXPECT_FALSE(p4->terminato());
  EXPECT_TRUE(giro_richiesto());
  EXPECT_FALSE(_telecamere()[0].attiva);
  // A post_roll that is no number saves nothing.
  ASSERT_EQ(camera(Json{{"id", 4}, {"attiva", true}}).status, 200);
  EXPECT_THROW(camera(Json{{"id", 4}, {"attiva", false}, {"post_roll", "tanto"}}),
               std::invalid_argument);
  EXPECT_FALSE(p4->terminato());
  EXPECT_TRUE(_telecamere()[1].attiva);
}

}  // namespace
}  // namespace nvr

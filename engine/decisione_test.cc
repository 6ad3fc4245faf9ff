#include "engine/decisione.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "core/db.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "testing/azzera.h"
#include "testing/ambiente.h"

namespace nvr {
namespace {

using testing::HostDiProva;

// Local wall-clock time as the engine sees it (weekday filled in). 2024-05-03 is a Friday.
std::tm alle(int giorno_di_maggio, int h, int m, int s = 0) {
  Zona utc = zona_di("UTC");
  std::tm t{};
  t.tm_year = 2024 - 1900;
  t.tm_mon = 4;
  t.tm_mday = giorno_di_maggio;
  t.tm_hour = h;
  t.tm_min = m;
  t.tm_sec = s;
  return scomponi(epoch_di(t, utc), utc);
}
enum Maggio { kGio = 2, kVen = 3, kSab = 4, kDom = 5, kLun = 6 };

Camera camera(CamId id, const std::string& modo, Json eventi = Json::array(), int post_roll = 30) {
  Camera c;
  c.id = id;
  c.nome = "cam" + std::to_string(id);
  c.attiva = true;
  c.modo = modo;
  c.eventi = std::move(eventi);
  c.post_roll = post_roll;
  return c;
}

class DecisioneTest : public ::testing::Test {
 protected:
  void SetUp() override { _init_db(); }

  std::vector<Riga> eventi_salvati() {
    Connessione c = _db();
    return c.righe("SELECT cam_id, ts, entity_id, stato FROM nvr_eventi ORDER BY id");
  }

  HostDiProva h;
};

TEST_F(DecisioneTest, WeeklySchedules) {
  const Json notte_venerdi = Json::parse(R"([{"da": "22:00", "a": "06:00", "giorni": [4]}])");
  const Json notte_gio_ven = Json::parse(R"([{"da": "22:00", "a": "06:00", "giorni": [3, 4]}])");
  const Json notte_domenica = Json::parse(R"([{"da": "22:00", "a": "06:00", "giorni": [6]}])");
  const Json mai = Json::parse(R"([{"da": "00:00", "a": "00:00"}])");
  // Broken entries around one good entry (10:00-11:00): only the good one may match.
  const Json misto = Json::parse(R"([
      {"da": "xx:00", "a": "18:00"}, {"a": "18:00"}, {"da": 8, "a": "18:00"},
      {"da": "08:00", "a": "18:00", "giorni": ["lun"]}, {"da": "08:00", "a": "18:00", "giorni": 4},
      {"da": "08", "a": "18:00"}, "08:00-18:00", null,
      {"da": "10:00", "a": "11:00"}])");
  const Json giorni_come_testi = Json::parse(R"([{"da": "08:00", "a": "18:00", "giorni": ["4"]}])");
  const Json giorni_vuoti = Json::parse(R"([{"da": "08:00", "a": "18:00", "giorni": []}])");

  struct Caso {
    const char* nome;
    const Json& orari;
    std::tm adesso;
    bool atteso;
  };
  const Caso casi[] = {
      {"Fri 23:30", notte_venerdi, alle(kVen, 23, 30), true},
      {"Fri 21:59", notte_venerdi, alle(kVen, 21, 59), false},
      {"Sat 05:59", notte_venerdi, alle(kSab, 5, 59, 59), true},
      {"Sat 06:00", notte_venerdi, alle(kSab, 6, 0), false},
      {"Fri 05:00", notte_venerdi, alle(kVen, 5, 0), false},
      {"Fri 05:00, Thursday listed", notte_gio_ven, alle(kVen, 5, 0), true},
      {"Mon 05:00 belongs to Sunday", notte_domenica, alle(kLun, 5, 0), true},
      {"Sun 05:00 belongs to Saturday", notte_domenica, alle(kDom, 5, 0), false},
      {"never", mai, alle(kLun, 12, 0), false},
      {"broken entries skipped, 10:30", misto, alle(kVen, 10, 30), true},
      {"broken entries skipped, 09:00", misto, alle(kVen, 9, 0), false},
      {"weekday as text, Fri", giorni_come_testi, alle(kVen, 9, 0), true},
      {"empty weekday list means every day", giorni_vuoti, alle(kDom, 12, 0), true},
      {"no schedule", Json(), alle(kVen, 12, 0), false},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.nome);
    EXPECT_EQ(_in_orario(c.orari, c.adesso), c.atteso);
  }
}

TEST_F(DecisioneTest, SchedulesFollowTheWallClockOnClockChangeDays) {
  Zona roma = zona_di("Europe/Rome");
  ASSERT_NE(roma, nullptr);
  // Minutes actually recorded, walking the real timeline in one-minute steps.
  auto minuti_registrati = [&](const Json& orari, int mese, int giorno) {
    std::tm inizio{};
    inizio.tm_year = 2024 - 1900;
    inizio.tm_mon = mese - 1;
    inizio.tm_mday = giorno;
    std::tm fine = inizio;
    fine.tm_mday += 2;
    int n = 0;
    for (double t = epoch_di(inizio, roma); t < epoch_di(fine, roma); t += 60)
      n += _in_orario(orari, scomponi(t, roma)) ? 1 : 0;
    return n;
  };
  const Json notte_di_sabato = Json::parse(R"([{"da": "22:00", "a": "06:00", "giorni": [5]}])");
  const Json ora_doppia = Json::parse(R"([{"da": "02:00", "a": "03:00", "giorni": [6]}])");
  // Spring: the night from Saturday 30 March loses an hour, and 02:00-03:00 never happens.
  EXPECT_EQ(minuti_registrati(notte_di_sabato, 3, 30), 7 * 60);
  EXPECT_EQ(minuti_registrati(ora_doppia, 3, 30), 0);
  // Autumn: the night from Saturday 26 October lasts an hour more, and 02:00-03:00 twice.
  EXPECT_EQ(minuti_registrati(notte_di_sabato, 10, 26), 9 * 60);
  EXPECT_EQ(minuti_registrati(ora_doppia, 10, 26), 2 * 60);
}

TEST_F(DecisioneTest, ModesAndPostRoll) {
  const std::tm adesso = alle(kVen, 12, 0);
  Camera orari = camera(1, "orari");
  orari.orari = Json::parse(R"([{"da": "11:00", "a": "13:00"}])");
  EXPECT_EQ(_deve_registrare(camera(9, "sempre"), Json::object(), adesso),
            std::make_pair(true, std::string("continua")));
  EXPECT_EQ(_deve_registrare(orari, Json::object(), adesso),
            std::make_pair(true, std::string("orario")));
  EXPECT_EQ(_deve_registrare(orari, Json::object(), alle(kVen, 13, 0)),
            std::make_pair(false, std::string()));

  const Camera porta = camera(2, "eventi", {"binary_sensor.porta", "binary_sensor.pir"});
  const Camera strana = camera(3, "altro", {"binary_sensor.porta"}, 0);  // read as events
  const Camera mai_vista = camera(4, "eventi", {"binary_sensor.cantina"});
  const Json attivo = {{"binary_sensor.pir", "on"}, {"binary_sensor.porta", "off"}};
  const Json calmo = {{"binary_sensor.pir", "off"}, {"binary_sensor.porta", "off"}};
  const Json solo_porta = {{"binary_sensor.porta", "open"}};
  const double t0 = 1'700'000'000.0;
  struct Passo {
    double dopo;  // seconds after t0
    const Json& stati;
    bool porta, strana;
  };
  const Passo passi[] =
      {
          {0, calmo, false, false},  // never seen active: no post-roll yet
          {0, attivo, true, false},
          {3, calmo, true, false},
          {29.9, calmo, true, false},
          {30, calmo, false, false},  // the first pass at t0 + post_roll stops
          {40, solo_porta, true, true},  // active again: the post-roll restarts from here
          {41, calmo, true, false},      // post_roll 0: stops at the next quiet pass
          {69.5, Json::array(), true, false},
          {70, Json(), false, false},  // no states at all reads as quiet
      };
  for (const Passo& p : passi) {
    SCOPED_TRACE(p.dopo);
    std::pair<bool, std::string> si{true, "evento"}, no{false, ""};
    EXPECT_EQ(_deve_registrare(porta, p.stati, adesso, t0 + p.dopo), p.porta ? si : no);
    EXPECT_EQ(_deve_registrare(strana, p.stati, adesso, t0 + p.dopo), p.strana ? si : no);
    EXPECT_EQ(_deve_registrare(mai_vista, p.stati, adesso, t0 + p.dopo), no);
  }
}

TEST_F(DecisioneTest, StatesReadWithoutTheHostsRules) {
  // Host attached, without a normaliser.
  for (const Json& v :
       {Json("OPEN"), Json(1), Json("1"), Json(true), Json("Playing"), Json("detected")})
    EXPECT_TRUE(_attivo(v)) << v;
  for (const Json& v : {Json("off"), Json(), Json(0), Json(1.0), Json(""), Json(" on"), Json("onn"),
                        Json::array({"on"})})
    EXPECT_FALSE(_attivo(v)) << v;
  azzera_stato_per_test();  // no host at all
  EXPECT_TRUE(_attivo("Open"));
  EXPECT_FALSE(_attivo(Json()));
}

TEST_F(DecisioneTest, HostNormaliserDecidesAndItsFailureFallsBack) {
  h.host->normalize_state = [](const Json& v) -> Json {
    if (v == "guasto") throw std::runtime_error("stato illeggibile");
    if (v == "aperto") return "on";
    if (v == "vero") return true;
    return "off";
  };
  EXPECT_TRUE(_attivo("aperto"));
  EXPECT_FALSE(_attivo("on"));    // the host's rules, not the common words
  EXPECT_FALSE(_attivo("vero"));  // only the text "on" counts
  EXPECT_FALSE(_attivo("guasto"));
  h.host->normalize_state = [](const Json&) -> Json { throw std::runtime_error("giu'"); };
  EXPECT_TRUE(_attivo("Open"));
  EXPECT_FALSE(_attivo("aperto"));
}

TEST_F(DecisioneTest, HostStatesOrNothing) {
  EXPECT_EQ(_stati_attuali(), Json::object());  // the host offers no states
  const Json stati = {{"binary_sensor.porta", "on"}, {"sensor.t", 21.5}};
  h.host->get_all_internal_states = [&] { return stati; };
  EXPECT_EQ(_stati_attuali(), stati);
  h.host->get_all_internal_states = [] { return Json::array({"on"}); };
  EXPECT_EQ(_stati_attuali(), Json::object());
  h.host->get_all_internal_states = []() -> Json { throw std::runtime_error("host occupato"); };
  EXPECT_EQ(_stati_attuali(), Json::object());
  azzera_stato_per_test();
  EXPECT_EQ(_stati_attuali(), Json::object());
}

TEST_F(DecisioneTest, EntityChangesAreWrittenOncePerWatchingCamera) {
  Camera spenta = camera(3, "eventi", {"pir"});
  spenta.attiva = false;
  const std::vector<Camera> cams = {camera(1, "eventi", {"porta", "pir"}),
                                    camera(2, "eventi", {"porta"}), spenta,
                                    camera(4, "sempre", {"pir"})};
  const Json porta_aperta = {{"porta", "on"}, {"pir", "off"}};
  const Json pir_attivo = {{"porta", "off"}, {"pir", "on"}};

  ::testing::internal::CaptureStdout();
  _segna_eventi(cams, porta_aperta, 100.0);  // the state at start-up is not a change
  _segna_eventi(cams, porta_aperta, 103.0);
  EXPECT_TRUE(eventi_salvati().empty());

  _segna_eventi(cams, pir_attivo, 106.5);
  const std::vector<Riga> attese = {
      {std::int64_t{1}, 106.5, std::string("porta"), std::string("off")},
      {std::int64_t{2}, 106.5, std::string("porta"), std::string("off")},
      {std::int64_t{1}, 106.5, std::string("pir"), std::string("on")},
  };
  EXPECT_EQ(eventi_salvati(), attese);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");

  // All rows of a pass go in together, or none does.
  h.sql(
      "CREATE TRIGGER rifiuta BEFORE INSERT ON nvr_eventi WHEN NEW.cam_id = 2 "
      "BEGIN SELECT RAISE(ABORT, 'rifiutato'); END");
  ::testing::internal::CaptureStdout();
  _segna_eventi(cams, porta_aperta, 110.0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] eventi non salvati: rifiutato (INSERT INTO nvr_eventi (cam_id, ts, entity_id, "
            "stato) VALUES (?,?,?,?))\n");
  EXPECT_EQ(eventi_salvati().size(), 3u);
  // The lost change counts as seen: it is not written again at the next pass.
  h.sql("DROP TRIGGER rifiuta");
  _segna_eventi(cams, porta_aperta, 113.0);
  EXPECT_EQ(eventi_salvati().size(), 3u);
}
}  // namespace
}  // namespace nvr

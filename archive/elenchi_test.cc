#include "archive/elenchi.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>

#include "core/db.h"
#include "core/tempo.h"
#include "testing/ambiente.h"
#include "testing/processi.h"
#include "testing/righe_di_prova.h"

namespace nvr {
namespace {

using testing::aggiungi_registrazione;

class ElenchiTest : public ::testing::Test {
 protected:
  void SetUp() override { _init_db(); }
  void TearDown() override {  // the machine's zone back, after the tests changed it
    tz_.reset();
    ::tzset();
  }
  void riga(std::optional<CamId> cam, std::optional<double> inizio, double fine,
            const std::string& file) {
    Connessione c = _db();
    c.esegui("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (?,?,?,?)",
             {cam ? Valore(*cam) : Valore(), inizio ? Valore(*inizio) : Valore(), fine, file});
    c.commit();
  }

  std::optional<testing::VariabileDiProva> tz_{std::in_place, "TZ", "UTC"};
  testing::HostDiProva h;
};

// The days list must name every local date that has a start, whatever the machine's zone does
// at midnight: starts right before and after midnights, on days of 23 and 25 hours, and in a
// zone whose clocks skip midnight itself.
TEST_F(ElenchiTest, DaysListEveryLocalDateAroundMidnightsAndClockChanges) {
  const double marzo = 1711843200;      // 2024-03-31 00:00 UTC, Europe clocks go forward
  const double ottobre = 1729987200;    // 2024-10-27 00:00 UTC, and back
  const double settembre = 1725753600;  // 2024-09-08 00:00 UTC, Santiago skips 00:00-01:00
  std::vector<double> inizi;
  for (double base : {marzo, ottobre, settembre})
    for (double ore = -30; ore <= 30; ore += 0.5)
      for (double scarto : {-0.001, 0.0, 0.001}) inizi.push_back(base + ore * 3600 + scarto);
  for (std::size_t i = 0; i < inizi.size(); ++i)
    riga(static_cast<CamId>(1 + i % 3), inizi[i], inizi[i] + 60, std::to_string(i));
  riga(std::nullopt, marzo + 40 * 86400, 0, "senza_camera");
  riga(2, std::nullopt, 0, "senza_inizio");

  for (const char* zona : {"UTC", "Europe/Rome", "America/Santiago", "Pacific/Apia"}) {
    ::setenv("TZ", zona, 1);
    ::tzset();
    auto giorno = [](double t) { return formatta(scomponi(t, nullptr), "%Y-%m-%d"); };
    std::set<std::string> tutti = {giorno(0), giorno(marzo + 40 * 86400)}, di_2 = {giorno(0)};
    for (std::size_t i = 0; i < inizi.size(); ++i) {
      tutti.insert(giorno(inizi[i]));
      if (i % 3 == 1) di_2.insert(giorno(inizi[i]));
    }
    EXPECT_EQ(giorni_con_registrazioni(std::nullopt), tutti) << zona;
    EXPECT_EQ(giorni_con_registrazioni(2), di_2) << zona;
  }
}

// The day's listing must match "overlaps the day" exactly, whatever the segments' lengths: a
// segment far longer than the others (a recorder that hung, a clock jump) still reaches in.
TEST_F(ElenchiTest, DayListingFindsEveryOverlapWhateverTheLength) {
  const double g = 1714521600, fine_g = g + 86400;
  struct Caso {
    double inizio, fine;
    bool nel_giorno;
  };
  const std::vector<Caso> casi = {
      {g - 60, g + 60, true},                   // across midnight
      {g - 3 * 86400, g + 10, true},            // three days long, started well before
      {g - 300, g, false},                      // ends exactly at the day's start
      {fine_g, fine_g + 300, false},            // starts exactly at the day's end
      {g + 500, g + 400, true},                 // end before start, inside the day
  };
  std::vector<double> attesi;
  for (std::size_t i = 0; i < casi.size(); ++i) {
    riga(1, casi[i].inizio, casi[i].fine, std::to_string(i));
    if (casi[i].nel_giorno) attesi.push_back(casi[i].inizio);
  }
  riga(3, g - 30 * 86400, g + 30 * 86400, "lunghissimo");  // another camera's
  std::sort(attesi.begin(), attesi.end());
  auto inizi = [&] {
    std::vector<double> v;
    for (const SegmentoElencato& s : giornata_camera(1, g, fine_g).segmenti) v.push_back(s.inizio);
    return v;
  };
  EXPECT_EQ(inizi(), attesi);

  // Without its longest segment the camera's bound shrinks; the rest is still found.
  h.sql("DELETE FROM nvr_registrazioni WHERE inizio = " + Json(g - 3 * 86400).dump());
  attesi.erase(std::find(attesi.begin(), attesi.end(), g - 3 * 86400));
  EXPECT_EQ(inizi(), attesi);
  EXPECT_TRUE(giornata_camera(7, g, fine_g).segmenti.empty());  // a camera without rows

  // An end stored as text compares above every number: "fine > day start" holds for it, however
  // early it started.
  h.sql("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, " +
        Json(g - 10 * 86400).dump() + ", 'mai', 'testo')");
  attesi.insert(attesi.begin(), g - 10 * 86400);
  EXPECT_EQ(inizi(), attesi);
}

}  // namespace
}  // namespace nvr

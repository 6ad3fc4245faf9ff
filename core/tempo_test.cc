#include "core/tempo.h"

#include <gtest/gtest.h>

#include <ctime>
#include <vector>

#include "core/stato.h"
#include "testing/ambiente.h"
#include "testing/azzera.h"

namespace nvr {
namespace {

using testing::HostDiProva;

std::tm ore(int anno, int mese, int giorno, int h = 0, int m = 0, int s = 0) {
  std::tm t{};
  t.tm_year = anno - 1900;
  t.tm_mon = mese - 1;
  t.tm_mday = giorno;
  t.tm_hour = h;
  t.tm_min = m;
  t.tm_sec = s;
  return t;
}

std::string come_testo(const std::tm& t) { return formatta(t, "%Y-%m-%d %H:%M:%S"); }

// What "now" reads in the host's zone, and the machine's local time without one, is seen through a
// real host in python/test_collega.py; here the zones that cannot be used.
TEST(TempoTest, UnusableHostZoneLeavesTheMachinesTime) {
  azzera_stato_per_test();
  EXPECT_EQ(_fuso(), nullptr);  // not attached
  HostDiProva h;
  for (std::optional<std::string> zona :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("Non/Esiste")}) {
    h.imposta_zona(zona);
    EXPECT_EQ(_fuso(), nullptr);
  }
  h.imposta_zona("Asia/Tokyo");
  EXPECT_NE(_fuso(), nullptr);
  h.host->_zn_fuso = []() -> std::optional<std::string> { throw std::runtime_error("giu'"); };
  EXPECT_EQ(_fuso(), nullptr);
}

TEST(TempoTest, LocalMidnightsAcrossClockChanges) {
  Zona roma = zona_di("Europe/Rome");
  ASSERT_NE(roma, nullptr);
  struct Caso {
    std::tm giorno;
    double ore_nel_giorno;
  };
  const Caso casi[] = {
      {ore(2024, 3, 30), 24}, {ore(2024, 3, 31), 23}, {ore(2024, 10, 27), 25},
      {ore(2024, 12, 31), 24},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(come_testo(c.giorno));
    std::tm dopo = c.giorno;
    dopo.tm_mday += 1;  // overflow into the next month or year is normalised
    double inizio = epoch_di(c.giorno, roma), fine = epoch_di(dopo, roma);
    EXPECT_DOUBLE_EQ((fine - inizio) / 3600, c.ore_nel_giorno);
    EXPECT_EQ(come_testo(scomponi(inizio, roma)), come_testo(c.giorno));
  }
  EXPECT_EQ(epoch_di(ore(2024, 1, 1), roma), 1704063600.0);
  // The repeated hour of autumn is its first occurrence (still summer time, +2).
  EXPECT_EQ(epoch_di(ore(2024, 10, 27, 2, 30), roma), 1729989000.0);
  // The skipped hour of spring is counted with the winter offset (+1): 02:30 is 03:30 summer time.
  double saltata = epoch_di(ore(2024, 3, 31, 2, 30), roma);
  EXPECT_EQ(come_testo(scomponi(saltata, roma)), "2024-03-31 03:30:00");
}

TEST(TempoTest, DayTextsAreReadStrictly) {
  EXPECT_TRUE(leggi_giorno("2024-02-29"));
  EXPECT_TRUE(leggi_giorno("2024-2-5"));
  for (const char* cattivo : {"2023-02-29", "2024-02-30", "2024-13-01", "2024-00-10", "24-01-01",
                              " 2024-01-01", "2024-01-01 ", "2024/01/01", "2024-+1-01", "",
                              "0000-01-01", "2024-01-001", "oggi"}) {
    SCOPED_TRACE(cattivo);
    EXPECT_FALSE(leggi_giorno(cattivo));
  }
  std::tm t = *leggi_giorno("2024-05-01");
  EXPECT_EQ(formatta(t, "%Y-%m-%d"), "2024-05-01");
  EXPECT_EQ(giorno_settimana(scomponi(epoch_di(t, zona_di("UTC")), zona_di("UTC"))), 2);  // Wed
}

}  // namespace
}  // namespace nvr

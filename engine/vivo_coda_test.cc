#include "engine/vivo_coda.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

// "K..." is a key fragment, anything else is not; the text is the fragment's bytes.
FrammentoVivo f(const std::string& testo) {
  return {std::make_shared<const std::string>(testo), testo[0] == 'K'};
}

std::string testi(const std::vector<FrammentoVivo>& v) {
  std::string s;
  for (const auto& x : v) s += *x.dati + " ";
  return s;
}

TEST(VivoCoda, MemoriaTieneDueIntervalliEntroIlLimite) {
  struct Caso {
    std::vector<std::string> arrivi;
    std::size_t limite;
    std::string per_chi_arriva;  // fragments from the last key one held
    std::size_t byte;            // held
  } casi[] = {
      {{"p1", "K1", "a1", "b1"}, 100, "K1 a1 b1 ", 8},
      {{"K1", "a1", "K2", "a2", "K3", "a3"}, 100, "K3 a3 ", 8},  // K2 a2 K3 a3
      {{"K1", "a1", "a2", "a3"}, 5, "", 4},                      // K1 fell to the byte limit
      {{"K1", "a1", "a2", "K2xxxxxxxx"}, 5, "K2xxxxxxxx ", 10},  // the newest always stays
      {{"a1", "a2"}, 100, "", 4},
  };
  for (const Caso& c : casi) {
    MemoriaVivo m(c.limite);
    for (const auto& a : c.arrivi) m.aggiungi(f(a));
    EXPECT_EQ(testi(m.da_ultima_chiave()), c.per_chi_arriva) << c.arrivi.size();
    EXPECT_EQ(m.byte(), c.byte) << testi(m.da_ultima_chiave());
  }
}

TEST(VivoCoda, SpettatoreIniziaDaChiaveEVieneLasciatoSeLento) {
  CodaSpettatore q(20);
  q.accoda_init(std::make_shared<const std::string>("INIT"));
  EXPECT_TRUE(q.accoda(f("a0")));  // before any key fragment: skipped
  EXPECT_TRUE(q.accoda(f("K1")));
  EXPECT_TRUE(q.accoda(f("a1")));
  EXPECT_EQ(q.prendi(), "INITK1a1");
  EXPECT_TRUE(q.vuota());
  EXPECT_TRUE(q.accoda(f("abcdefgh")));
  EXPECT_TRUE(q.accoda(f("ijklmnop")));
  EXPECT_EQ(q.prendi(10), "abcdefgh");  // whole pieces only
  EXPECT_EQ(q.byte(), 8u);
  EXPECT_TRUE(q.accoda(f("0123456789")));
  EXPECT_FALSE(q.accoda(f("x1234")));  // 23 bytes would wait
  EXPECT_TRUE(q.vuota());
  EXPECT_EQ(q.byte(), 0u);
}

}  // namespace
}  // namespace nvr

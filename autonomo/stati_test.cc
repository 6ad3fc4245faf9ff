// How pushed entity states read as active: the recorder starts an event camera on "on" only.
#include "autonomo/stati.h"

#include <gtest/gtest.h>

namespace nvr::autonomo {
namespace {

TEST(StatiTest, NormalizeStateTurnsActiveWordsIntoOn) {
  struct Caso {
    Json stato;
    Json atteso;
  };
  // A few words of the active list: what matters is how a state is read before the match.
  for (const Caso& c : std::vector<Caso>{{"on", "on"},
                                         {"OPEN", "on"},
                                         {" Aperto ", "on"},
                                         {true, "on"},
                                         {-0.5, "on"},
                                         {"off", "off"},
                                         {"Chiuso", "chiuso"},
                                         {"unavailable", "unavailable"},
                                         {false, "off"},
                                         {0, "off"},
                                         {nullptr, "off"},
                                         {"", ""}}) {
    EXPECT_EQ(normalize_state(c.stato), c.atteso) << c.stato;
  }
}

}  // namespace
}  // namespace nvr::autonomo

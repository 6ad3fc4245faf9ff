#include "storage/rete.h"

#include <gtest/gtest.h>

#include "testing/stand_in.h"

namespace nvr {
namespace {

TEST(MontaReteTest, RefusesWhatWouldChangeTheMountCommand) {
  testing::Controfigure finte;
  finte.mount_registratore();
  const std::tuple<bool, std::string, std::string> non_valido{
      false, "Indirizzo del server non valido", ""};
  const std::tuple<bool, std::string, std::string> incompleto{
      false, "Servono indirizzo del server e nome della cartella condivisa", ""};
  struct Caso {
    Json dest;
    const std::tuple<bool, std::string, std::string>& atteso;
  } casi[] = {
      {{{"server", "//nas"}, {"share", "video"}}, non_valido},
      {{{"server", "nas:/x"}, {"share", "video"}}, non_valido},
      {{{"proto", "nfs"}, {"server", "nas:/x"}, {"share", "video"}}, non_valido},
      {{{"server", "nas video"}, {"share", "video"}}, non_valido},
      {{{"server", "nas;reboot"}, {"share", "video"}}, non_valido},
      {{{"server", "  "}, {"share", "video"}}, incompleto},
      {{{"server", "nas"}, {"share", " / "}}, incompleto},
      {{{"server", "nas"}}, incompleto},
      {Json::object(), incompleto},
  };
  for (const Caso& c : casi) EXPECT_EQ(monta_rete(c.dest), c.atteso) << c.dest.dump();
  EXPECT_TRUE(finte.chiamate_mount().empty());
}

}  // namespace
}  // namespace nvr

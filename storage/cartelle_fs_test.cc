#include "storage/cartelle_fs.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "testing/ambiente.h"

namespace nvr {
namespace {

using testing::CartellaTemporanea;

TEST(CartelleFsTest, MkdirReportsWhatIsInTheWayAndTheWriteProbeLeavesNothing) {
  CartellaTemporanea t;
  EXPECT_EQ(_mkdir(t / "a/b/c"), std::make_pair(true, std::string()));
  EXPECT_TRUE(std::filesystem::is_directory(t / "a/b/c"));
  EXPECT_EQ(_mkdir(t / "a/b/c"), std::make_pair(true, std::string()));  // already there
  testing::scrivi_file(t / "file", "x");
  auto [ok, msg] = _mkdir(t / "file/sotto");
  EXPECT_FALSE(ok);
  EXPECT_FALSE(msg.empty());

  EXPECT_TRUE(_scrivibile(t / "a/b/c"));
  EXPECT_TRUE(std::filesystem::is_empty(t / "a/b/c"));
  EXPECT_FALSE(_scrivibile(t / "manca"));
  EXPECT_FALSE(_sola_lettura(t / "manca"));  // unreachable is not read-only
}

}  // namespace
}  // namespace nvr

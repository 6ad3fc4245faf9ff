#include "storage/cartelle_fs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "testing/ambiente.h"

namespace nvr {
namespace {

using testing::CartellaTemporanea;

TEST(MkdirTest, CreatesNestedFoldersAndReportsWhatIsInTheWay) {
  CartellaTemporanea t;
  EXPECT_EQ(_mkdir(t / "a/b/c"), std::make_pair(true, std::string()));
  EXPECT_TRUE(std::filesystem::is_directory(t / "a/b/c"));
  EXPECT_EQ(_mkdir(t / "a/b/c"), std::make_pair(true, std::string()));  // already there

  testing::scrivi_file(t / "file", "x");
  auto [ok, msg] = _mkdir(t / "file/sotto");
  EXPECT_FALSE(ok);
  EXPECT_FALSE(msg.empty());
  auto [ok2, msg2] = _mkdir(t / "file");
  EXPECT_FALSE(ok2);
  EXPECT_FALSE(msg2.empty());
}

TEST(ScrivibileTest, ProbeLeavesNothingBehind) {
  CartellaTemporanea t;
  EXPECT_TRUE(_scrivibile(t.percorso()));
  EXPECT_TRUE(std::filesystem::is_empty(t.percorso()));
  EXPECT_FALSE(_scrivibile(t / "manca"));
  EXPECT_FALSE(_sola_lettura(t.percorso()));
  EXPECT_FALSE(_sola_lettura(t / "manca"));  // unreachable is not read-only
  EXPECT_TRUE(_intesta(t.percorso()));
}

}  // namespace
}  // namespace nvr

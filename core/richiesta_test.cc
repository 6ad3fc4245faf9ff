// Reading a raw request, which every host does for every request.
#include "core/richiesta.h"

#include <gtest/gtest.h>

#include <vector>

namespace nvr {
namespace {

TEST(RichiestaTest, IntegerSegmentTakesOnlyPlainNonNegativeIntegers) {
  struct Caso {
    const char* percorso;
    bool corrisponde;
    std::int64_t rid;
  };
  for (const Caso& c :
       std::vector<Caso>{{"/api/nvr/video/0", true, 0},
                         {"/api/nvr/video/123456789012345678", true, 123456789012345678},
                         {"/api/nvr/video/1234567890123456789", false, 0},
                         {"/api/nvr/video/-1", false, 0},
                         {"/api/nvr/video/+1", false, 0},
                         {"/api/nvr/video/1a", false, 0},
                         {"/api/nvr/video/", false, 0},
                         {"/api/nvr/video", false, 0},
                         {"/api/nvr/videox/1", false, 0},
                         {"/api/nvr/video/1/", false, 0}}) {
    std::optional<std::int64_t> rid;
    EXPECT_EQ(corrisponde_rotta("/api/nvr/video/<int:rid>", c.percorso, rid), c.corrisponde)
        << c.percorso;
    if (c.corrisponde) {
      EXPECT_EQ(rid, c.rid) << c.percorso;
    }
  }
  std::optional<std::int64_t> rid;
  EXPECT_TRUE(corrisponde_rotta("/api/nvr/stato", "/api/nvr/stato", rid));
  EXPECT_FALSE(corrisponde_rotta("/api/nvr/stato", "/api/nvr/stato/", rid));
  EXPECT_FALSE(rid.has_value());
  // A placeholder inside the route.
  const std::string foto = "/api/vivo/<int:rid>/istantanea";
  EXPECT_TRUE(corrisponde_rotta(foto, "/api/vivo/12/istantanea", rid));
  EXPECT_EQ(rid, 12);
  for (const char* p : {"/api/vivo//istantanea", "/api/vivo/1x/istantanea", "/api/vivo/12",
                        "/api/vivo/istantanea", "/api/vivo/12/istantaneaa"})
    EXPECT_FALSE(corrisponde_rotta(foto, p, rid)) << p;
}

TEST(RichiestaTest, BodyIsAnObjectOrEmpty) {
  EXPECT_EQ(corpo_da_testo(R"({"a":1})"), (Json{{"a", 1}}));
  for (const char* cattivo : {"", "[1]", "{", "3", "null", "\"x\""})
    EXPECT_EQ(corpo_da_testo(cattivo), Json::object()) << cattivo;
  EXPECT_EQ(nome_intestazione("If-None-Match"), "if-none-match");
}

}  // namespace
}  // namespace nvr

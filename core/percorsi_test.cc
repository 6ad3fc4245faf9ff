#include "core/percorsi.h"

#include <gtest/gtest.h>

#include "core/testi.h"

namespace nvr {
namespace {

TEST(PercorsiTest, InsideAFolderComparesWholeFolderNames) {
  struct Caso {
    const char* p;
    const char* radice;
    bool dentro;
  };
  const Caso casi[] = {
      {"/media", "/media", true},
      {"/media/a/b", "/media", true},
      {"/media", "/media/", true},
      {"/media/a", "/media//", true},
      {"/mediafoo", "/media", false},
      {"/med", "/media", false},
      {"/srv", "/", true},
      {"relativa", "/", false},
  };
  for (const Caso& c : casi)
    EXPECT_EQ(dentro_cartella(c.p, c.radice), c.dentro) << c.p << " " << c.radice;
}

TEST(TestiTest, EachTrimKeepsWhatItDoesNotOwn) {
  EXPECT_EQ(spoglia(" \t\f\va b\r\n"), "a b");
  EXPECT_EQ(spoglia_spazi_e_tab("\t a \r\n"), "a \r\n");
  EXPECT_EQ(spoglia_spazi_e_righe("\r\n a\f \t"), "a\f");
  EXPECT_EQ(spoglia(" \n "), "");
  EXPECT_EQ(minuscolo("RTSP://Ä"), "rtsp://Ä");
  EXPECT_TRUE(schema_flusso_valido("RtSpS://x"));
  EXPECT_FALSE(schema_flusso_valido("rtmp://x"));
  EXPECT_FALSE(schema_flusso_valido(" rtsp://x"));
}

TEST(TestiTest, Base64OfEveryPaddingAndHighBytes) {
  const std::pair<std::string, std::string> casi[] = {{"", ""},
                                                      {"f", "Zg=="},
                                                      {"fo", "Zm8="},
                                                      {"foo", "Zm9v"},
                                                      {"foob", "Zm9vYg=="},
                                                      {"foobar", "Zm9vYmFy"},
                                                      {"\xff\xfe", "//4="}};
  for (const auto& [dati, atteso] : casi) EXPECT_EQ(base64(dati), atteso) << dati;
}

}  // namespace
}  // namespace nvr

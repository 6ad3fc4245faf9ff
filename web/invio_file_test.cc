#include "web/invio_file.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

std::string intestazione(const PianoInvio& p, const std::string& nome) {
  for (const auto& [k, v] : p.intestazioni)
    if (k == nome) return v;
  return "(assente)";
}

class InvioFileTest : public ::testing::Test {
 protected:
  FileDaInviare file{"/arch/Garage/2024-05-01/10-00-00.mp4", "video/mp4", false, "10-00-00.mp4"};
  InfoFile info{1000, 1714557600LL * 1000000000 + 5, 42};

  PianoInvio piano(std::map<std::string, std::string> h) { return pianifica_invio(file, info, h); }
};

TEST_F(InvioFileTest, ByteRanges) {
  struct Caso {
    const char* range;
    int status;
    std::int64_t inizio, lunghezza;
    const char* content_range;
  };
  const Caso casi[] = {
      {"", 200, 0, 1000, "(assente)"},
      {"bytes=0-99", 206, 0, 100, "bytes 0-99/1000"},
      {"bytes=900-", 206, 900, 100, "bytes 900-999/1000"},
      {"bytes=-300", 206, 700, 300, "bytes 700-999/1000"},
      {"bytes=990-5000", 206, 990, 10, "bytes 990-999/1000"},
      {"bytes=1000-", 416, 0, 0, "bytes */1000"},
      // Malformed or several ranges: the whole file.
      {"bytes=0-10,20-30", 200, 0, 1000, "(assente)"},
      {"bytes=50-10", 200, 0, 1000, "(assente)"},
      {"bytes=99999999999999999999-", 200, 0, 1000, "(assente)"},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.range);
    std::map<std::string, std::string> h;
    if (*c.range) h["range"] = c.range;
    PianoInvio p = piano(h);
    EXPECT_EQ(p.status, c.status);
    EXPECT_EQ(p.inizio, c.inizio);
    EXPECT_EQ(p.lunghezza, c.lunghezza);
    EXPECT_EQ(intestazione(p, "Content-Range"), c.content_range);
  }
}

TEST_F(InvioFileTest, ValidatorsAnswerNotModified) {
  PianoInvio primo = piano({});
  std::string etag = intestazione(primo, "ETag");
  std::string data = intestazione(primo, "Last-Modified");
  EXPECT_EQ(data, "Wed, 01 May 2024 10:00:00 GMT");

  EXPECT_EQ(piano({{"if-none-match", etag}}).status, 304);
  EXPECT_EQ(piano({{"if-modified-since", data}}).status, 304);

  // If-Range: the range only while the file is the one the client has.
  EXPECT_EQ(piano({{"range", "bytes=0-9"}, {"if-range", etag}}).status, 206);
  EXPECT_EQ(piano({{"range", "bytes=0-9"}, {"if-range", "\"vecchio\""}}).status, 200);

  info.dimensione = 1001;  // the file changed: another tag
  EXPECT_EQ(piano({{"if-none-match", etag}}).status, 200);
}

// A file name with quotes or accents must not break the header.
TEST_F(InvioFileTest, DispositionNamesTheFile) {
  file.allegato = true;
  file.nome_download = "sé\"x.mp4";
  EXPECT_EQ(intestazione(piano({}), "Content-Disposition"),
            "attachment; filename=\"s__x.mp4\"; filename*=UTF-8''s%C3%A9%22x.mp4");
}

}  // namespace
}  // namespace nvr

#include "archive/mp4_traccia.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "archive/mp4_scrittura.h"
#include "testing/ambiente.h"
#include "testing/segmenti_mp4.h"

namespace nvr {
namespace {

using testing::BFrame;

std::string moov_di(std::string_view byte) {
  for (const Box& b : figli_box(byte))
    if (b.tipo == "moov") return std::string(b.intero);
  return "";
}

TEST(Mp4Traccia, OgniCampioneComeLoLeggeFfprobeEChiavi) {
  for (BFrame b : {BFrame::kNo, BFrame::kSi}) {
    const auto& segmenti = testing::segmenti_di_prova(b);
    ASSERT_EQ(segmenti.size(), 4u);
    bool negativi = false;
    // The first segment (with an initial empty edit) and one of the middle.
    for (const std::string& file : {segmenti[0], segmenti[1]}) {
      SCOPED_TRACE(file);
      auto letta = leggi_traccia(file);
      ASSERT_TRUE(letta.ok()) << letta.errore().messaggio;
      const Traccia& t = letta.valore();
      const auto p = testing::guarda_mp4(file, testing::Decodifica::kNo).pacchetti;
      ASSERT_EQ(t.campioni.size(), p.size());
      EXPECT_EQ(std::tie(t.scala, t.info.larghezza, t.info.altezza),
                std::make_tuple(12800u, 320, 240));
      EXPECT_TRUE(t.info.codec.starts_with("avc1.")) << t.info.codec;
      EXPECT_EQ(t.voce.substr(4, 4), "stsd");
      // ffprobe keeps the initial empty edit; the track starts with its first presented frame.
      std::int64_t primo = p[0].pts, durata = 0;
      for (const auto& x : p) primo = std::min(primo, x.pts);
      for (std::size_t i = 0; i < p.size(); ++i) {
        const Campione& c = t.campioni[i];
        ASSERT_EQ(std::tie(c.posizione, c.dimensione, c.durata, c.chiave),
                  std::tie(p[i].posizione, p[i].dimensione, p[i].durata, p[i].chiave))
            << i;
        ASSERT_EQ(c.dts, p[i].dts - p[0].dts) << i;
        ASSERT_EQ(c.dts + c.cts, p[i].pts - primo) << i;
        negativi |= c.cts < 0;
        durata += c.durata;
      }
      EXPECT_EQ(t.durata, durata);
    }
    EXPECT_EQ(negativi, b == BFrame::kSi);
  }
  auto t = leggi_traccia(testing::segmenti_di_prova(BFrame::kSi).at(0));
  const std::pair<std::int64_t, std::size_t> chiavi[] = {// key frames 0 and 25 of 50
                                                         {-1, 0},
                                                         {0, 0},
                                                         {25 * 512 - 1, 0},
                                                         {25 * 512, 25},
                                                         {1'000'000, 25}};
  for (auto [quando, attesa] : chiavi) EXPECT_EQ(chiave_prima_di(t.valore(), quando), attesa);
}

// Garbage comes back as an error, never as a crash, a throw or a huge allocation.
TEST(Mp4Traccia, FileRovinati) {
  testing::CartellaTemporanea dir;
  const std::string byte = testing::leggi_file(testing::segmenti_di_prova(BFrame::kSi).at(0));
  const std::string moov = moov_di(byte);
  ASSERT_FALSE(moov.empty());
  const std::size_t senza_moov = byte.size() - moov.size();
  // The file with 4 bytes at `dove` bytes into the body of moov's table `tabella` replaced.
  auto cambia = [&](const char* tabella, std::size_t dove, const char* con) {
    std::string s = byte;
    s.replace(s.find(tabella, senza_moov) + 4 + dove, 4, con, 4);
    return s;
  };
  const std::pair<std::string, const char*> casi[] = {
      {byte.substr(0, senza_moov), "manca il box moov"},  // still being recorded
      {byte.substr(0, byte.size() - 1), "manca il box moov"},
      {cambia("stco", 8, "\x7f\xff\xff\xff"), "oltre la fine del file"},
      {cambia("stsz", 8, "\0\0\0\x31"), "non concordano"},   // 49 sizes for 50 durations
      {cambia("stss", 8, "\0\0\0\x60"), "stss incoerente"},  // key frame 96 of 50
  };
  for (const auto& [contenuto, atteso] : casi) {
    testing::scrivi_file(dir / "f.mp4", contenuto);
    auto t = leggi_traccia(dir / "f.mp4");
    ASSERT_FALSE(t.ok()) << atteso;
    EXPECT_TRUE(t.errore().messaggio.starts_with("File video illeggibile: "));
    EXPECT_NE(t.errore().messaggio.find(atteso), std::string::npos) << t.errore().messaggio;
  }
  EXPECT_FALSE(leggi_traccia(dir / "assente").ok());
  EXPECT_FALSE(leggi_traccia(dir.percorso()).ok());

  // Every byte of moov set to a few values, and every truncation: an answer each time.
  int rifiutati = 0;
  for (std::size_t i = 0; i < moov.size(); ++i) {
    for (char v : {'\x00', '\x01', '\x7f', '\xff'}) {
      std::string m = moov;
      m[i] = v;
      rifiutati += !traccia_da_moov(m).ok();
    }
    EXPECT_FALSE(traccia_da_moov(std::string_view(moov).substr(0, i)).ok());
  }
  EXPECT_GT(rifiutati, 0);
}

// An export's moov as long as a 5-minute segment's, with offsets past 4 GiB, gives back the
// samples it was written from.
TEST(Mp4Traccia, MoovLungoDaUnEsportazione) {
  std::vector<Campione> c(7500);
  for (std::size_t i = 0; i < c.size(); ++i)
    c[i] = {0,
            600'000 + static_cast<std::uint32_t>(i % 7),
            512 * static_cast<std::int64_t>(i),
            i % 3 == 1 ? 1024 : -512,
            512,
            i % 25 == 0};
  auto segmento = leggi_traccia(testing::segmenti_di_prova(BFrame::kNo).at(0));
  ASSERT_TRUE(segmento.ok());
  const std::string testa =
      testa_esportazione({Tratto{c}}, segmento.valore().voce, 12800, 320, 240, 0);
  EXPECT_EQ(testa.substr(testa.size() - 12, 4), "mdat");  // 64-bit length
  const std::string moov = moov_di(testa);

  auto t = traccia_da_moov(moov);
  ASSERT_TRUE(t.ok()) << t.errore().messaggio;
  ASSERT_EQ(t.valore().campioni.size(), c.size());
  std::uint64_t pos = testa.size();
  for (std::size_t i = 0; i < c.size(); ++i) {
    const Campione& l = t.valore().campioni[i];
    ASSERT_EQ(std::tie(l.posizione, l.dts, l.dimensione, l.cts, l.durata, l.chiave),
              std::tie(pos, c[i].dts, c[i].dimensione, c[i].cts, c[i].durata, c[i].chiave))
        << i;
    pos += l.dimensione;
  }
  EXPECT_GT(pos, 1ull << 32);
}

}  // namespace
}  // namespace nvr

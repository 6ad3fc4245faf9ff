#include "archive/mp4_traccia.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <tuple>

#include "archive/mp4_scrittura.h"
#include "testing/ambiente.h"
#include "testing/segmenti_mp4.h"

namespace nvr {
namespace {

using testing::BFrame;

struct Pacchetto {
  long long pts, dts, durata, dimensione, posizione;
  bool chiave;
};

std::vector<Pacchetto> pacchetti(const std::string& file) {
  std::vector<Pacchetto> fuori;
  const std::string testo = testing::uscita_comando(
      "ffprobe -v error -select_streams v:0 -show_entries packet=pts,dts,duration,size,pos,flags "
      "-of csv=p=0 " +
      file);
  for (std::size_t a = 0, b; a < testo.size(); a = b + 1) {
    b = testo.find('\n', a);
    if (b == std::string::npos) b = testo.size();
    Pacchetto p{};
    char flag[8] = {};
    if (std::sscanf(testo.c_str() + a, "%lld,%lld,%lld,%lld,%lld,%7s", &p.pts, &p.dts, &p.durata,
                    &p.dimensione, &p.posizione, flag) == 6) {
      p.chiave = flag[0] == 'K';
      fuori.push_back(p);
    }
  }
  return fuori;
}

// The moov box of a file held in memory.
std::string moov_di(const std::string& byte) {
  for (const Box& b : figli_box(byte))
    if (b.tipo == "moov") return std::string(b.intero);
  return "";
}

TEST(Mp4Traccia, OgniCampioneComeLoLeggeFfprobe) {
  for (BFrame b : {BFrame::kNo, BFrame::kSi}) {
    bool negativi = false;
    // The first segment (with an initial empty edit) and one of the middle are enough.
    const auto& segmenti = testing::segmenti_di_prova(b);
    ASSERT_EQ(segmenti.size(), 4u);
    for (const std::string& file : {segmenti[0], segmenti[1]}) {
      SCOPED_TRACE(file);
      auto letta = leggi_traccia(file);
      ASSERT_TRUE(letta.ok()) << letta.errore().messaggio;
      const Traccia& t = letta.valore();
      const auto attesi = pacchetti(file);
      ASSERT_EQ(t.campioni.size(), attesi.size());
      EXPECT_EQ(t.scala, 12800u);
      EXPECT_EQ(t.info.codec.rfind("avc1.", 0), 0u) << t.info.codec;
      EXPECT_EQ(t.info.larghezza * 1000 + t.info.altezza, 320240);
      EXPECT_EQ(t.voce.substr(4, 4), "stsd");
      // ffprobe keeps the first segment's initial empty edit; the track starts at its first frame.
      long long primo = attesi.empty() ? 0 : attesi[0].pts;
      for (const Pacchetto& p : attesi) primo = std::min(primo, p.pts);
      std::int64_t durata = 0;
      for (std::size_t i = 0; i < attesi.size(); ++i) {
        const Campione& c = t.campioni[i];
        const Pacchetto& p = attesi[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(c.posizione, static_cast<std::uint64_t>(p.posizione));
        EXPECT_EQ(c.dimensione, p.dimensione);
        EXPECT_EQ(c.dts, p.dts - attesi[0].dts);
        EXPECT_EQ(c.dts + c.cts, p.pts - primo);
        EXPECT_EQ(c.durata, p.durata);
        EXPECT_EQ(c.chiave, p.chiave);
        negativi |= c.cts < 0;
        durata += c.durata;
      }
      EXPECT_EQ(t.durata, durata);
    }
    EXPECT_EQ(negativi, b == BFrame::kSi);
  }
}

TEST(Mp4Traccia, ChiavePrimaDi) {
  auto t = leggi_traccia(testing::segmenti_di_prova(BFrame::kSi).at(0));
  ASSERT_TRUE(t.ok());
  const std::int64_t f = 512;  // one frame at 25 fps in 1/12800
  const std::pair<std::int64_t, std::size_t> casi[] = {
      {-1, 0}, {0, 0}, {24 * f, 0}, {25 * f - 1, 0}, {25 * f, 25}, {1'000'000, 25}};
  for (auto [quando, attesa] : casi)
    EXPECT_EQ(chiave_prima_di(t.valore(), quando), attesa) << quando;
}

// Garbage must come back as an error, never as a crash, a throw or a huge allocation.
TEST(Mp4Traccia, FileRovinati) {
  testing::CartellaTemporanea dir;
  const std::string file = testing::segmenti_di_prova(BFrame::kSi).at(0);
  const std::string byte = testing::leggi_file(file);
  const std::string moov = moov_di(byte);
  ASSERT_FALSE(moov.empty());
  const std::size_t mdat_fine = byte.size() - moov.size();

  // stco's first entry pointing past the end of the file.
  std::string lontano = byte;
  const std::size_t stco = lontano.find("stco", mdat_fine);
  ASSERT_NE(stco, std::string::npos);
  lontano.replace(stco + 12, 4, "\x7f\xff\xff\xff");
  // stsz counting one sample fewer than stts.
  std::string conta = byte;
  const std::size_t stsz = conta.find("stsz", mdat_fine);
  ASSERT_NE(stsz, std::string::npos);
  conta[stsz + 15] = static_cast<char>(conta[stsz + 15] - 1);

  const std::pair<std::string, const char*> casi[] = {
      {byte.substr(0, mdat_fine), "manca il box moov"},  // still being recorded
      {byte.substr(0, byte.size() - 1), "manca il box moov"},
      {"", "manca il box moov"},
      {lontano, "oltre la fine del file"},
      {conta, "non concordano"},
  };
  int n = 0;
  for (const auto& [contenuto, atteso] : casi) {
    const std::string p = dir / std::to_string(n++);
    testing::scrivi_file(p, contenuto);
    auto t = leggi_traccia(p);
    ASSERT_FALSE(t.ok()) << atteso;
    EXPECT_EQ(t.errore().messaggio.rfind("File video illeggibile: ", 0), 0u);
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
      auto t = traccia_da_moov(m);
      if (!t.ok()) {
        ++rifiutati;
        EXPECT_EQ(t.errore().messaggio.rfind("File video illeggibile: ", 0), 0u);
      }
    }
    EXPECT_FALSE(traccia_da_moov(std::string_view(moov).substr(0, i)).ok());
  }
  EXPECT_GT(rifiutati, 0);
}

// A long segment's moov (5 minutes at 25 fps) parses in well under 10 ms; the export's moov,
// with offsets past 4 GiB, gives back the samples it was written from.
TEST(Mp4Traccia, MoovLungoDaUnEsportazione) {
  std::vector<Campione> c(7500);
  for (std::size_t i = 0; i < c.size(); ++i) {
    c[i].dimensione = 600'000 + static_cast<std::uint32_t>(i % 7);
    c[i].durata = 512;
    c[i].chiave = i % 25 == 0;
    c[i].cts = i % 3 == 1 ? 1024 : -512;
  }
  auto segmento = leggi_traccia(testing::segmenti_di_prova(BFrame::kNo).at(0));
  ASSERT_TRUE(segmento.ok());
  const std::string testa =
      testa_esportazione({Tratto{c}}, segmento.valore().voce, 12800, 320, 240, 0);
  EXPECT_EQ(testa.substr(testa.size() - 12, 4), "mdat");  // 64-bit length
  const std::string moov = moov_di(testa);

  auto t = traccia_da_moov(moov);
  std::chrono::steady_clock::duration meglio = std::chrono::hours(1);
  for (int i = 0; i < 5; ++i) {
    const auto da = std::chrono::steady_clock::now();
    t = traccia_da_moov(moov);
    meglio = std::min<std::chrono::steady_clock::duration>(meglio,
                                                           std::chrono::steady_clock::now() - da);
  }
  EXPECT_LT(meglio, std::chrono::milliseconds(10));
  ASSERT_TRUE(t.ok()) << t.errore().messaggio;
  ASSERT_EQ(t.valore().campioni.size(), c.size());
  std::uint64_t pos = testa.size();
  for (std::size_t i = 0; i < c.size(); ++i) {
    const Campione& l = t.valore().campioni[i];
    ASSERT_EQ(l.posizione, pos) << i;
    ASSERT_EQ(l.dts, static_cast<std::int64_t>(i) * 512) << i;
    ASSERT_EQ(std::tie(l.dimensione, l.cts, l.durata, l.chiave),
              std::tie(c[i].dimensione, c[i].cts, c[i].durata, c[i].chiave))
        << i;
    pos += l.dimensione;
  }
  EXPECT_GT(pos, 1ull << 32);
}

}  // namespace
}  // namespace nvr

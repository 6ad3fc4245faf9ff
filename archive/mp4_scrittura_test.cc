#include "archive/mp4_scrittura.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "testing/ambiente.h"
#include "testing/segmenti_mp4.h"

namespace nvr {
namespace {

using testing::BFrame;

// Every step between consecutive values, once sorted, is one frame: none lost, none doubled.
::testing::AssertionResult continui(std::vector<std::int64_t> t) {
  std::sort(t.begin(), t.end());
  for (std::size_t i = 1; i < t.size(); ++i)
    if (t[i] - t[i - 1] != 512)  // 25 fps in 1/12800
      return ::testing::AssertionFailure() << "salto da " << t[i - 1] << " a " << t[i];
  return ::testing::AssertionSuccess();
}

// A file made of two consecutive segments decodes cleanly, every frame once, from a key frame.
testing::Mp4Visto verifica(const std::string& file, std::size_t campioni) {
  testing::Mp4Visto v = testing::guarda_mp4(file);
  EXPECT_EQ(v.errori, "");
  EXPECT_EQ(v.pacchetti.size(), campioni);
  EXPECT_TRUE(!v.pacchetti.empty() && v.pacchetti[0].chiave);
  std::vector<std::int64_t> pts, dts;
  for (const auto& p : v.pacchetti) pts.push_back(p.pts), dts.push_back(p.dts);
  EXPECT_TRUE(continui(pts));
  EXPECT_TRUE(continui(dts));
  return v;
}

TEST(Mp4Scrittura, DueSegmentiComeFlussoEComeEsportazione) {
  testing::CartellaTemporanea dir;
  for (BFrame b : {BFrame::kNo, BFrame::kSi}) {
    SCOPED_TRACE(static_cast<int>(b));
    Traccia t[2];
    std::string byte[2];
    for (int i = 0; i < 2; ++i) {
      const std::string& file = testing::segmenti_di_prova(b).at(i);
      auto letta = leggi_traccia(file);
      ASSERT_TRUE(letta.ok()) << file;
      t[i] = std::move(letta).valore();
      byte[i] = testing::leggi_file(file);
    }
    auto dati = [&](int i, std::span<const Campione> c) {
      std::string s;
      for (const Campione& x : c) s.append(byte[i], x.posizione, x.dimensione);
      return s;
    };

    // A fragmented stream, one fragment per GOP, the second segment's decode times following
    // the first's.
    std::string s = inizio_frammentato(t[0].voce, t[0].scala, 320, 240);
    std::uint64_t base = 0;
    std::uint32_t n = 1;
    for (int k = 0; k < 2; ++k) {
      std::span<const Campione> c = t[k].campioni;
      for (std::size_t i = 0, j; i < c.size(); i = j) {
        for (j = i + 1; j < c.size() && !c[j].chiave;) ++j;
        s += testa_frammento(c.subspan(i, j - i), base + c[i].dts, n++) +
             dati(k, c.subspan(i, j - i));
      }
      base += t[k].durata;
    }
    testing::scrivi_file(dir / "flusso.mp4", s);
    verifica(dir / "flusso.mp4", t[0].campioni.size() + t[1].campioni.size());

    // An export from the key frame before the middle of the first to the end of the second:
    // moov first, one second of the first and two of the second, created at its start.
    std::span<const Campione> a = t[0].campioni;
    a = a.subspan(chiave_prima_di(t[0], 30 * 512));
    testing::scrivi_file(
        dir / "esportazione.mp4",
        testa_esportazione({{a}, {}, {t[1].campioni}}, t[0].voce, 12800, 320, 240, 1700000000.6) +
            dati(0, a) + dati(1, t[1].campioni));
    std::vector<std::string_view> ordine;
    const std::string e = testing::leggi_file(dir / "esportazione.mp4");
    for (const Box& x : figli_box(e)) ordine.push_back(x.tipo);
    EXPECT_EQ(ordine, (std::vector<std::string_view>{"ftyp", "moov", "mdat"}));
    const testing::Mp4Visto v = verifica(dir / "esportazione.mp4", 75);
    EXPECT_NEAR(v.durata, 3.0, 0.05);
    EXPECT_EQ(v.creazione, "2023-11-14T22:13:20.000000Z");
  }
}

}  // namespace
}  // namespace nvr

#include "archive/mp4_scrittura.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/json.h"
#include "testing/ambiente.h"
#include "testing/segmenti_mp4.h"

namespace nvr {
namespace {

using testing::BFrame;

// What ffprobe and ffmpeg make of a written file.
struct Visto {
  std::string errori;  // of a full decode
  std::vector<std::int64_t> pts, dts;
  bool prima_chiave = false;
  double durata = 0;
  std::string creazione;
};

Visto guarda(const std::string& file) {
  Visto v;
  v.errori = testing::uscita_comando("ffmpeg -nostdin -v error -i " + file + " -f null - 2>&1");
  const Json j = Json::parse(
      testing::uscita_comando("ffprobe -v error -select_streams v:0 -of json -show_entries "
                              "packet=pts,dts,flags:format=duration:format_tags=creation_time " +
                              file),
      nullptr, false);
  if (j.is_discarded()) return v;
  for (const Json& p : j.value("packets", Json::array())) {
    v.pts.push_back(p.value("pts", -1ll));
    v.dts.push_back(p.value("dts", -1ll));
    if (v.pts.size() == 1) v.prima_chiave = p.value("flags", "").starts_with("K");
  }
  const Json& formato = j.value("format", Json::object());
  v.durata = std::stod(formato.value("duration", "0"));
  v.creazione = formato.value("tags", Json::object()).value("creation_time", "");
  return v;
}

// Every step between consecutive values, once sorted, equals `passo`: none lost, none doubled.
::testing::AssertionResult continui(std::vector<std::int64_t> t, std::int64_t passo) {
  std::sort(t.begin(), t.end());
  for (std::size_t i = 1; i < t.size(); ++i)
    if (t[i] - t[i - 1] != passo)
      return ::testing::AssertionFailure() << "salto da " << t[i - 1] << " a " << t[i];
  return ::testing::AssertionSuccess();
}

struct Segmento {
  Traccia traccia;
  std::string byte;
  std::string dati(std::span<const Campione> c) const {
    std::string s;
    for (const Campione& x : c) s.append(byte, x.posizione, x.dimensione);
    return s;
  }
};

std::vector<Segmento> primi_due(BFrame b) {
  std::vector<Segmento> fuori;
  for (int i = 0; i < 2; ++i) {
    const std::string& file = testing::segmenti_di_prova(b).at(i);
    auto t = leggi_traccia(file);
    EXPECT_TRUE(t.ok()) << file;
    if (t.ok()) fuori.push_back({std::move(t).valore(), testing::leggi_file(file)});
  }
  return fuori;
}

constexpr std::int64_t kFotogramma = 512;  // 25 fps in 1/12800

// Two consecutive segments as one fragmented stream, one fragment per GOP, decode times joined.
TEST(Mp4Scrittura, FlussoFrammentatoDiDueSegmenti) {
  testing::CartellaTemporanea dir;
  for (BFrame b : {BFrame::kNo, BFrame::kSi}) {
    const auto seg = primi_due(b);
    ASSERT_EQ(seg.size(), 2u);
    const Traccia& primo = seg[0].traccia;
    std::string s = inizio_frammentato(primo.voce, primo.scala, 320, 240);
    std::uint64_t base = 0;
    std::uint32_t n = 1;
    std::size_t campioni = 0;
    for (const Segmento& x : seg) {
      std::span<const Campione> c = x.traccia.campioni;
      for (std::size_t i = 0, j; i < c.size(); i = j) {
        for (j = i + 1; j < c.size() && !c[j].chiave;) ++j;
        s += testa_frammento(c.subspan(i, j - i), base + c[i].dts, n++);
        s += x.dati(c.subspan(i, j - i));
      }
      base += x.traccia.durata;
      campioni += c.size();
    }
    const std::string file = dir / "flusso.mp4";
    testing::scrivi_file(file, s);
    const Visto v = guarda(file);
    EXPECT_EQ(v.errori, "");
    EXPECT_EQ(v.pts.size(), campioni);
    EXPECT_TRUE(v.prima_chiave);
    EXPECT_TRUE(continui(v.dts, kFotogramma));
    EXPECT_TRUE(continui(v.pts, kFotogramma));
  }
}

// From the key frame before the middle of one segment to the end of the next: a file that
// plays from its start, moov first.
TEST(Mp4Scrittura, EsportazioneDiDueSegmenti) {
  testing::CartellaTemporanea dir;
  for (BFrame b : {BFrame::kNo, BFrame::kSi}) {
    const auto seg = primi_due(b);
    ASSERT_EQ(seg.size(), 2u);
    std::span<const Campione> a = seg[0].traccia.campioni, c = seg[1].traccia.campioni;
    a = a.subspan(chiave_prima_di(seg[0].traccia, 30 * kFotogramma));
    ASSERT_EQ(a.size(), 25u);
    const std::string file = dir / "esportazione.mp4";
    testing::scrivi_file(file, testa_esportazione({{a}, {}, {c}}, seg[0].traccia.voce, 12800, 320,
                                                  240, 1700000000.6) +
                                   seg[0].dati(a) + seg[1].dati(c));

    std::vector<std::string_view> ordine;
    const std::string byte = testing::leggi_file(file);
    for (const Box& x : figli_box(byte)) ordine.push_back(x.tipo);
    EXPECT_EQ(ordine, (std::vector<std::string_view>{"ftyp", "moov", "mdat"}));
    const Visto v = guarda(file);
    EXPECT_EQ(v.errori, "");
    EXPECT_EQ(v.pts.size(), a.size() + c.size());
    EXPECT_TRUE(v.prima_chiave);
    EXPECT_TRUE(continui(v.dts, kFotogramma));
    EXPECT_TRUE(continui(v.pts, kFotogramma));
    EXPECT_NEAR(v.durata, 3.0, 0.05);
    EXPECT_EQ(v.creazione, "2023-11-14T22:13:20.000000Z");
  }
}

}  // namespace
}  // namespace nvr

#include "engine/mp4_frammenti.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

std::string be32(std::uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}

// A box: 32-bit length, type, body.
std::string box(std::string_view tipo, const std::string& corpo = "") {
  return be32(static_cast<std::uint32_t>(8 + corpo.size())) + std::string(tipo) + corpo;
}

// A full box: version 0 and 24-bit flags before the body.
std::string piena(std::string_view tipo, std::uint32_t flag, const std::string& corpo) {
  return box(tipo, be32(flag & 0xffffff) + corpo);
}

// moov with one video track of sample entry `voce` (`interni`: boxes inside it), 640x360.
std::string moov(std::string_view voce, const std::string& interni, std::uint32_t trex = 0) {
  std::string visuale(78, '\0');
  visuale[24] = 0x02, visuale[25] = static_cast<char>(0x80);  // 640
  visuale[26] = 0x01, visuale[27] = 0x68;                     // 360
  std::string stsd = piena("stsd", 0, be32(1) + box(voce, visuale + interni));
  std::string hdlr = piena("hdlr", 0, be32(0) + "vide" + std::string(12, '\0'));
  std::string trak = box("trak", box("mdia", hdlr + box("minf", box("stbl", stsd))));
  std::string mvex =
      box("mvex", piena("trex", 0, be32(1) + be32(1) + be32(0) + be32(0) + be32(trex)));
  return box("moov", trak + mvex);
}

const std::string kAvcC = box("avcC", std::string("\x01\x64\x00\x1f\xff", 5));

// moof with tfhd flags/fields and trun flags/fields, then its mdat.
std::string frammento(std::uint32_t f_tfhd, const std::string& tfhd, std::uint32_t f_trun,
                      const std::string& trun, int dati = 5) {
  std::string moof = box(
      "moof", box("mfhd", be32(0) + be32(1)) +
                  box("traf", piena("tfhd", f_tfhd, be32(1) + tfhd) + piena("trun", f_trun, trun)));
  return moof + box("mdat", std::string(static_cast<std::size_t>(dati), 'x'));
}

constexpr std::uint32_t kChiave = 0x02000000, kNonChiave = 0x01010000;

TEST(Mp4Frammenti, PrimoCampioneChiave) {
  struct Caso {
    const char* nome;
    std::uint32_t f_tfhd;
    std::string tfhd;
    std::uint32_t f_trun;
    std::string trun;
    std::uint32_t trex;
    bool chiave;
  };
  const std::string un = be32(1), due = be32(2);
  const std::vector<Caso> casi = {
      {"first_sample_flags chiave", 0x20, be32(kNonChiave), 0x5, due + be32(0) + be32(kChiave), 0,
       true},
      {"first_sample_flags no", 0, "", 0x4, due + be32(kNonChiave), 0, false},
      {"per campione, il primo conta", 0, "", 0x700,
       due + be32(40) + be32(9) + be32(kChiave) + be32(40) + be32(9) + be32(kNonChiave), 0, true},
      {"tfhd dopo campi opzionali", 0x3b,
       std::string(8, '\0') + be32(1) + be32(40) + be32(9) + be32(kNonChiave), 0x1, un + be32(0),
       kChiave, false},
      {"tfhd chiave", 0x20, be32(0), 0, un, kNonChiave, true},
      {"solo trex no", 0, "", 0, un, kNonChiave, false},
      {"dipende da nessuno", 0, "", 0x4, un + be32(0x02010000), 0, true},
      {"trun vuoto", 0, "", 0, be32(0), kChiave, false},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.nome);
    LettoreMp4 l;
    auto pezzi = l.leggi(box("ftyp", "isom") + moov("avc1", kAvcC, c.trex) +
                         frammento(c.f_tfhd, c.tfhd, c.f_trun, c.trun));
    ASSERT_TRUE(pezzi.ok()) << pezzi.errore().messaggio;
    ASSERT_EQ(pezzi.valore().size(), 2u);
    EXPECT_EQ(pezzi.valore()[1].chiave, c.chiave);
  }
}

// Every way of cutting the stream into chunks gives the same pieces.
TEST(Mp4Frammenti, PezziQualunqueTaglio) {
  const std::string init = box("ftyp", "isom") + moov("avc1", kAvcC);
  const std::string f1 = box("styp", "msdh") + box("sidx", std::string(20, 's')) +
                         frammento(0, "", 0x4, be32(1) + be32(kChiave), 300);
  const std::string f2 = frammento(0, "", 0x4, be32(1) + be32(kNonChiave), 70);
  const std::string flusso = init + f1 + f2 + box("mfra", std::string(16, '\0'));
  for (std::size_t passo : {1u, 7u, 64u, 100000u}) {
    SCOPED_TRACE(passo);
    LettoreMp4 l;
    std::vector<PezzoMp4> tutti;
    for (std::size_t i = 0; i < flusso.size(); i += passo) {
      auto p = l.leggi(std::string_view(flusso).substr(i, passo));
      ASSERT_TRUE(p.ok()) << p.errore().messaggio;
      tutti.insert(tutti.end(), p.valore().begin(), p.valore().end());
    }
    ASSERT_EQ(tutti.size(), 3u);
    EXPECT_EQ(tutti[0].tipo, PezzoMp4::Tipo::inizializzazione);
    EXPECT_EQ(tutti[0].dati + "|" + tutti[1].dati + "|" + tutti[2].dati,
              init + "|" + f1 + "|" + f2);
    EXPECT_EQ(std::make_pair(tutti[1].chiave, tutti[2].chiave), std::make_pair(true, false));
  }
  // The codec and size, from the moov in the stream (the other sample entries: Codec).
  LettoreMp4 l;
  ASSERT_TRUE(l.leggi(flusso).ok());
  ASSERT_TRUE(l.info().has_value());
  EXPECT_EQ(l.info()->codec + " " + std::to_string(l.info()->larghezza) + "x" +
                std::to_string(l.info()->altezza),
            "avc1.64001f 640x360");
}

TEST(Mp4Frammenti, Codec) {
  std::string hvcc = std::string("\x01\x01\x60\x00\x00\x00\xb0\x00\x00\x00\x00\x00\x5d", 13);
  std::string hvcc_alto = std::string("\x01\x62\x20\x00\x00\x00\x90\x01\x00\x00\x00\x00\x99", 13);
  struct Caso {
    std::string voce, interni, codec;
  } casi[] = {
      {"hvc1", box("hvcC", hvcc), "hvc1.1.6.L93.B0"},
      {"hev1", box("hvcC", hvcc_alto), "hev1.A2.4.H153.90.1"},
      {"hvc1", box("hvcC", "corto"), "hvc1"},
      {"av01", box("av1C", "1234"), "av01"},
  };
  for (const Caso& c : casi) {
    auto info = info_da_moov(moov(c.voce, c.interni));
    ASSERT_TRUE(info.has_value()) << c.codec;
    EXPECT_EQ(info->codec, c.codec);
  }
  EXPECT_FALSE(info_da_moov(box("moov", box("trak", ""))).has_value());
}

TEST(Mp4Frammenti, Spazzatura) {
  struct Caso {
    const char* nome;
    std::string byte;
  } casi[] = {
      {"corto", be32(4) + "ftyp"},
      {"senza lunghezza", be32(0) + "ftyp"},
      {"64 bit corto", be32(1) + "ftyp" + std::string(7, '\0') + "\x08"},
      {"troppo grande", be32(65u << 20) + "mdat"},
      {"moof prima di moov", box("ftyp", "isom") + frammento(0, "", 0, be32(1))},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.nome);
    LettoreMp4 l;
    auto p = l.leggi(c.byte);
    ASSERT_FALSE(p.ok());
    EXPECT_FALSE(p.errore().messaggio.empty());
    EXPECT_FALSE(l.leggi(box("ftyp", "isom")).ok());  // stays failed
  }
}

}  // namespace
}  // namespace nvr

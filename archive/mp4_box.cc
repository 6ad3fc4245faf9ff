#include "archive/mp4_box.h"

#include <cstdio>

namespace nvr {

namespace {

std::string esadecimale(unsigned v, const char* formato) {
  char buf[16];
  std::snprintf(buf, sizeof buf, formato, v);
  return buf;
}

// "avc1.PPCCLL": profile, compatibility and level bytes of avcC.
std::string codec_avc(std::string_view tipo, std::string_view avcc) {
  if (avcc.size() < 4) return std::string(tipo);
  return std::string(tipo) + "." + esadecimale(be8_in(avcc, 1), "%02x") +
         esadecimale(be8_in(avcc, 2), "%02x") + esadecimale(be8_in(avcc, 3), "%02x");
}

// "hvc1.<space><profile>.<compatibility, bits reversed>.<tier><level>[.<constraint bytes>]".
std::string codec_hevc(std::string_view tipo, std::string_view hvcc) {
  if (hvcc.size() < 13) return std::string(tipo);
  const unsigned b = be8_in(hvcc, 1);
  static constexpr const char* kSpazio[] = {"", "A", "B", "C"};
  std::uint32_t compat = *be32_in(hvcc, 2), rovescio = 0;
  for (int i = 0; i < 32; ++i) rovescio |= ((compat >> i) & 1u) << (31 - i);
  std::string s = std::string(tipo) + "." + kSpazio[b >> 6] + std::to_string(b & 0x1f) + "." +
                  esadecimale(rovescio, "%X") + "." + ((b & 0x20) ? "H" : "L") +
                  std::to_string(be8_in(hvcc, 12));
  int ultimo = 5;  // trailing zero constraint bytes are left out
  while (ultimo >= 0 && be8_in(hvcc, 6 + ultimo) == 0) --ultimo;
  for (int i = 0; i <= ultimo; ++i) s += "." + esadecimale(be8_in(hvcc, 6 + i), "%X");
  return s;
}

}  // namespace

std::optional<std::uint32_t> be32_in(std::string_view s, std::size_t pos) {
  if (pos > s.size() || s.size() - pos < 4) return std::nullopt;
  std::uint32_t v = 0;
  for (std::size_t i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(s[pos + i]);
  return v;
}

std::optional<std::uint64_t> be64_in(std::string_view s, std::size_t pos) {
  auto alto = be32_in(s, pos), basso = be32_in(s, pos + 4);
  if (!alto || !basso) return std::nullopt;
  return (std::uint64_t{*alto} << 32) | *basso;
}

unsigned be8_in(std::string_view s, std::size_t pos) {
  return pos < s.size() ? static_cast<unsigned char>(s[pos]) : 0u;
}

std::optional<TestataBox> testata_box(std::string_view s) {
  auto n = be32_in(s, 0);
  if (!n || s.size() < 8) return std::nullopt;
  if (*n != 1) return TestataBox{*n < 8 ? 0 : *n, 8};
  auto grande = be64_in(s, 8);
  if (!grande) return std::nullopt;
  return TestataBox{*grande < 16 ? 0 : *grande, 16};
}

std::vector<Box> figli_box(std::string_view contenuto) {
  std::vector<Box> fuori;
  while (true) {
    auto t = testata_box(contenuto);
    if (!t || t->lunghezza == 0 || t->lunghezza > contenuto.size()) break;
    fuori.push_back({contenuto.substr(4, 4),
                     contenuto.substr(t->testata, t->lunghezza - t->testata),
                     contenuto.substr(0, t->lunghezza)});
    contenuto.remove_prefix(t->lunghezza);
  }
  return fuori;
}

std::optional<Box> figlio_box(std::string_view contenuto, std::string_view tipo) {
  while (true) {
    auto t = testata_box(contenuto);
    if (!t || t->lunghezza == 0 || t->lunghezza > contenuto.size()) return std::nullopt;
    if (contenuto.substr(4, 4) == tipo)
      return Box{contenuto.substr(4, 4), contenuto.substr(t->testata, t->lunghezza - t->testata),
                 contenuto.substr(0, t->lunghezza)};
    contenuto.remove_prefix(t->lunghezza);
  }
}

std::optional<Box> box_lungo(std::string_view contenuto,
                             std::initializer_list<std::string_view> via) {
  std::optional<Box> b;
  for (std::string_view tipo : via) {
    b = figlio_box(contenuto, tipo);
    if (!b) return std::nullopt;
    contenuto = b->corpo;
  }
  return b;
}

std::optional<InfoVideo> info_da_moov(std::string_view moov) {
  auto t = testata_box(moov);
  if (!t || t->lunghezza != moov.size()) return std::nullopt;
  std::optional<Box> stsd;
  for (const Box& trak : figli_box(moov.substr(t->testata))) {
    if (trak.tipo != "trak") continue;
    auto hdlr = box_lungo(trak.corpo, {"mdia", "hdlr"});
    if (!hdlr || hdlr->corpo.size() < 12 || hdlr->corpo.substr(8, 4) != "vide") continue;
    stsd = box_lungo(trak.corpo, {"mdia", "minf", "stbl", "stsd"});
    break;
  }
  if (!stsd || stsd->corpo.size() < 8) return std::nullopt;
  auto voci = figli_box(stsd->corpo.substr(8));
  // A visual sample entry: 8 bytes of SampleEntry, 70 of VisualSampleEntry, then its boxes.
  if (voci.empty() || voci[0].corpo.size() < 78) return std::nullopt;
  const Box& voce = voci[0];
  InfoVideo info;
  info.larghezza = static_cast<int>((be8_in(voce.corpo, 24) << 8) | be8_in(voce.corpo, 25));
  info.altezza = static_cast<int>((be8_in(voce.corpo, 26) << 8) | be8_in(voce.corpo, 27));
  std::string_view interni = voce.corpo.substr(78);
  if (auto avcc = figlio_box(interni, "avcC"))
    info.codec = codec_avc(voce.tipo, avcc->corpo);
  else if (auto hvcc = figlio_box(interni, "hvcC"))
    info.codec = codec_hevc(voce.tipo, hvcc->corpo);
  else
    info.codec = std::string(voce.tipo);
  return info;
}

}  // namespace nvr

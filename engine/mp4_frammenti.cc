#include "engine/mp4_frammenti.h"

#include <cstdio>

namespace nvr {

namespace {

struct Box {
  std::string_view tipo;
  std::string_view corpo;  // after the header
};

std::optional<std::uint32_t> u32(std::string_view s, std::size_t pos) {
  if (pos + 4 > s.size()) return std::nullopt;
  std::uint32_t v = 0;
  for (std::size_t i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(s[pos + i]);
  return v;
}

std::optional<std::uint64_t> u64(std::string_view s, std::size_t pos) {
  auto alto = u32(s, pos), basso = u32(s, pos + 4);
  if (!alto || !basso) return std::nullopt;
  return (std::uint64_t{*alto} << 32) | *basso;
}

unsigned u8(std::string_view s, std::size_t pos) {
  return pos < s.size() ? static_cast<unsigned char>(s[pos]) : 0u;
}

// The length of the box whose header starts `s` and the header's own length; nothing while the
// header is incomplete; 0 as length for a header that cannot be a box.
struct Testata {
  std::uint64_t lunghezza = 0;
  std::size_t testata = 8;
};
std::optional<Testata> testata(std::string_view s) {
  auto n = u32(s, 0);
  if (!n || s.size() < 8) return std::nullopt;
  if (*n != 1) return Testata{*n < 8 ? 0 : *n, 8};
  auto grande = u64(s, 8);
  if (!grande) return std::nullopt;
  return Testata{*grande < 16 ? 0 : *grande, 16};
}

// The boxes inside `contenuto`, up to the first one that does not fit.
std::vector<Box> figli(std::string_view contenuto) {
  std::vector<Box> fuori;
  while (true) {
    auto t = testata(contenuto);
    if (!t || t->lunghezza == 0 || t->lunghezza > contenuto.size()) break;
    fuori.push_back(
        {contenuto.substr(4, 4), contenuto.substr(t->testata, t->lunghezza - t->testata)});
    contenuto.remove_prefix(t->lunghezza);
  }
  return fuori;
}

std::optional<Box> figlio(std::string_view contenuto, std::string_view tipo) {
  for (const Box& b : figli(contenuto))
    if (b.tipo == tipo) return b;
  return std::nullopt;
}

// Follows a path of box types down from `contenuto`.
std::optional<Box> sotto(std::string_view contenuto, std::initializer_list<std::string_view> via) {
  std::optional<Box> b;
  for (std::string_view tipo : via) {
    b = figlio(contenuto, tipo);
    if (!b) return std::nullopt;
    contenuto = b->corpo;
  }
  return b;
}

bool flag_chiave(std::uint32_t f) {
  const unsigned dipende = (f >> 24) & 3;
  const bool non_sync = (f >> 16) & 1;
  return !non_sync || dipende == 2;
}

std::string esadecimale(unsigned v, const char* formato) {
  char buf[16];
  std::snprintf(buf, sizeof buf, formato, v);
  return buf;
}

// "avc1.PPCCLL": profile, compatibility and level bytes of avcC.
std::string codec_avc(std::string_view tipo, std::string_view avcc) {
  if (avcc.size() < 4) return std::string(tipo);
  return std::string(tipo) + "." + esadecimale(u8(avcc, 1), "%02x") +
         esadecimale(u8(avcc, 2), "%02x") + esadecimale(u8(avcc, 3), "%02x");
}

// "hvc1.<space><profile>.<compatibility, bits reversed>.<tier><level>[.<constraint bytes>]".
std::string codec_hevc(std::string_view tipo, std::string_view hvcc) {
  if (hvcc.size() < 13) return std::string(tipo);
  const unsigned b = u8(hvcc, 1);
  static constexpr const char* kSpazio[] = {"", "A", "B", "C"};
  std::uint32_t compat = *u32(hvcc, 2), rovescio = 0;
  for (int i = 0; i < 32; ++i) rovescio |= ((compat >> i) & 1u) << (31 - i);
  std::string s = std::string(tipo) + "." + kSpazio[b >> 6] + std::to_string(b & 0x1f) + "." +
                  esadecimale(rovescio, "%X") + "." + ((b & 0x20) ? "H" : "L") +
                  std::to_string(u8(hvcc, 12));
  int ultimo = 5;  // trailing zero constraint bytes are left out
  while (ultimo >= 0 && u8(hvcc, 6 + ultimo) == 0) --ultimo;
  for (int i = 0; i <= ultimo; ++i) s += "." + esadecimale(u8(hvcc, 6 + i), "%X");
  return s;
}

std::uint32_t flag_trex(std::string_view moov) {
  auto trex = sotto(moov.substr(8), {"mvex", "trex"});
  return trex ? u32(trex->corpo, 20).value_or(0) : 0;
}

}  // namespace

std::optional<InfoVideo> info_da_moov(std::string_view moov) {
  auto t = testata(moov);
  if (!t || t->lunghezza != moov.size()) return std::nullopt;
  std::optional<Box> stsd;
  for (const Box& trak : figli(moov.substr(t->testata))) {
    if (trak.tipo != "trak") continue;
    auto hdlr = sotto(trak.corpo, {"mdia", "hdlr"});
    if (!hdlr || hdlr->corpo.substr(8, 4) != "vide") continue;
    stsd = sotto(trak.corpo, {"mdia", "minf", "stbl", "stsd"});
    break;
  }
  if (!stsd || stsd->corpo.size() < 8) return std::nullopt;
  auto voci = figli(stsd->corpo.substr(8));
  // A visual sample entry: 8 bytes of SampleEntry, 70 of VisualSampleEntry, then its boxes.
  if (voci.empty() || voci[0].corpo.size() < 78) return std::nullopt;
  const Box& voce = voci[0];
  InfoVideo info;
  info.larghezza = static_cast<int>((u8(voce.corpo, 24) << 8) | u8(voce.corpo, 25));
  info.altezza = static_cast<int>((u8(voce.corpo, 26) << 8) | u8(voce.corpo, 27));
  std::string_view interni = voce.corpo.substr(78);
  if (auto avcc = figlio(interni, "avcC"))
    info.codec = codec_avc(voce.tipo, avcc->corpo);
  else if (auto hvcc = figlio(interni, "hvcC"))
    info.codec = codec_hevc(voce.tipo, hvcc->corpo);
  else
    info.codec = std::string(voce.tipo);
  return info;
}

bool moof_inizia_con_chiave(std::string_view moof, std::uint32_t flag_predefiniti) {
  auto t = testata(moof);
  if (!t || t->lunghezza != moof.size()) return false;
  auto traf = figlio(moof.substr(t->testata), "traf");
  if (!traf) return false;
  std::uint32_t predefiniti = flag_predefiniti;
  if (auto tfhd = figlio(traf->corpo, "tfhd")) {
    const std::uint32_t f = u32(tfhd->corpo, 0).value_or(0) & 0xffffff;
    std::size_t pos = 8;  // version and flags, track_ID
    if (f & 0x1) pos += 8;
    if (f & 0x2) pos += 4;
    if (f & 0x8) pos += 4;
    if (f & 0x10) pos += 4;
    if (f & 0x20) {
      if (auto v = u32(tfhd->corpo, pos)) predefiniti = *v;
    }
  }
  for (const Box& trun : figli(traf->corpo)) {
    if (trun.tipo != "trun") continue;
    const std::uint32_t f = u32(trun.corpo, 0).value_or(0) & 0xffffff;
    if (u32(trun.corpo, 4).value_or(0) == 0) continue;  // no samples
    std::size_t pos = 8;                                // version and flags, sample_count
    if (f & 0x1) pos += 4;
    if (f & 0x4) return flag_chiave(u32(trun.corpo, pos).value_or(0x10000));
    if (f & 0x400) {
      std::size_t campione = pos + ((f & 0x100) ? 4 : 0) + ((f & 0x200) ? 4 : 0);
      return flag_chiave(u32(trun.corpo, campione).value_or(0x10000));
    }
    return flag_chiave(predefiniti);
  }
  return false;
}

Esito<std::vector<PezzoMp4>> LettoreMp4::leggi(std::string_view byte) {
  if (errore_) return *errore_;
  std::vector<PezzoMp4> pezzi;
  attesa_.append(byte);
  while (!errore_) {
    std::string_view resto = std::string_view(attesa_).substr(letti_);
    auto t = testata(resto);
    if (!t) break;
    if (t->lunghezza == 0 && u32(resto, 0) == 0u)
      errore_ = Errore{0, "box MP4 senza lunghezza"};
    else if (t->lunghezza == 0)
      errore_ = Errore{0, "box MP4 più corto della sua testata"};
    else if (t->lunghezza > kMassimoBox)
      errore_ = Errore{0, "box MP4 troppo grande (" + std::to_string(t->lunghezza) + " byte)"};
    if (errore_ || t->lunghezza > resto.size()) break;
    errore_ = box(resto.substr(4, 4), resto.substr(0, t->lunghezza), pezzi);
    letti_ += t->lunghezza;
  }
  if (errore_) {
    attesa_.clear();
    attesa_.shrink_to_fit();
    corrente_.clear();
    corrente_.shrink_to_fit();
    return *errore_;
  }
  attesa_.erase(0, letti_);
  letti_ = 0;
  return pezzi;
}

std::optional<Errore> LettoreMp4::box(std::string_view tipo, std::string_view intero,
                                      std::vector<PezzoMp4>& pezzi) {
  if (!moov_visto_ && tipo == "moof") return Errore{0, "frammento MP4 prima di moov"};
  if (corrente_.size() + intero.size() > kMassimoBox)
    return Errore{0, "frammento MP4 troppo grande"};
  corrente_.append(intero);
  PezzoMp4 pezzo;
  if (tipo == "moov" && !moov_visto_) {
    moov_visto_ = true;
    info_ = info_da_moov(intero);
    flag_trex_ = flag_trex(intero);
    pezzo.tipo = PezzoMp4::Tipo::inizializzazione;
  } else if (tipo == "moof") {
    moof_visto_ = true;
    chiave_ = moof_inizia_con_chiave(intero, flag_trex_);
    return std::nullopt;
  } else if (tipo == "mdat" && moof_visto_) {
    moof_visto_ = false;
    pezzo.chiave = chiave_;
  } else {
    return std::nullopt;
  }
  pezzo.dati = std::move(corrente_);
  corrente_.clear();
  pezzi.push_back(std::move(pezzo));
  return std::nullopt;
}

}  // namespace nvr

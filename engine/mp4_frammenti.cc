#include "engine/mp4_frammenti.h"

namespace nvr {

namespace {

bool flag_chiave(std::uint32_t f) {
  const unsigned dipende = (f >> 24) & 3;
  const bool non_sync = (f >> 16) & 1;
  return !non_sync || dipende == 2;
}

std::uint32_t flag_trex(std::string_view moov) {
  auto trex = box_lungo(moov.substr(8), {"mvex", "trex"});
  return trex ? be32_in(trex->corpo, 20).value_or(0) : 0;
}

}  // namespace

bool moof_inizia_con_chiave(std::string_view moof, std::uint32_t flag_predefiniti) {
  auto t = testata_box(moof);
  if (!t || t->lunghezza != moof.size()) return false;
  auto traf = figlio_box(moof.substr(t->testata), "traf");
  if (!traf) return false;
  std::uint32_t predefiniti = flag_predefiniti;
  if (auto tfhd = figlio_box(traf->corpo, "tfhd")) {
    const std::uint32_t f = be32_in(tfhd->corpo, 0).value_or(0) & 0xffffff;
    std::size_t pos = 8;  // version and flags, track_ID
    if (f & 0x1) pos += 8;
    if (f & 0x2) pos += 4;
    if (f & 0x8) pos += 4;
    if (f & 0x10) pos += 4;
    if (f & 0x20) {
      if (auto v = be32_in(tfhd->corpo, pos)) predefiniti = *v;
    }
  }
  for (const Box& trun : figli_box(traf->corpo)) {
    if (trun.tipo != "trun") continue;
    const std::uint32_t f = be32_in(trun.corpo, 0).value_or(0) & 0xffffff;
    if (be32_in(trun.corpo, 4).value_or(0) == 0) continue;  // no samples
    std::size_t pos = 8;                                    // version and flags, sample_count
    if (f & 0x1) pos += 4;
    if (f & 0x4) return flag_chiave(be32_in(trun.corpo, pos).value_or(0x10000));
    if (f & 0x400) {
      std::size_t campione = pos + ((f & 0x100) ? 4 : 0) + ((f & 0x200) ? 4 : 0);
      return flag_chiave(be32_in(trun.corpo, campione).value_or(0x10000));
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
    auto t = testata_box(resto);
    if (!t) break;
    if (t->lunghezza == 0 && be32_in(resto, 0) == 0u)
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

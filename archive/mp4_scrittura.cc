#include "archive/mp4_scrittura.h"

#include <cmath>
#include <limits>
#include <optional>

namespace nvr {

namespace {

constexpr std::uint32_t kFlagChiave = 0x02000000;     // depends on no other sample
constexpr std::uint32_t kFlagNonChiave = 0x01010000;  // depends on others, not a sync sample
constexpr std::uint64_t kDa1904 = 2082844800;         // seconds from 1904 to 1970
constexpr std::uint32_t kScalaFilmato = 1000;         // mvhd/tkhd units

// Appends big-endian fields and boxes whose length is written when they are closed.
class Scrittore {
 public:
  explicit Scrittore(std::string& s) : s_(s) {}
  void u8(unsigned v) { s_.push_back(static_cast<char>(v)); }
  void u16(unsigned v) { u8(v >> 8), u8(v); }
  void u32(std::uint32_t v) {
    const char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 8), static_cast<char>(v)};
    s_.append(b, 4);
  }
  void u64(std::uint64_t v) {
    u32(static_cast<std::uint32_t>(v >> 32)), u32(static_cast<std::uint32_t>(v));
  }
  void testo(std::string_view t) { s_.append(t); }
  void zeri(std::size_t n) { s_.append(n, '\0'); }
  // Opens a box (a full box with `versione`/`flag` when `piena`); answers where it starts.
  std::size_t apri(std::string_view tipo) {
    const std::size_t inizio = s_.size();
    u32(0);
    testo(tipo);
    return inizio;
  }
  std::size_t apri(std::string_view tipo, unsigned versione, std::uint32_t flag) {
    const std::size_t inizio = apri(tipo);
    u32((std::uint32_t{versione} << 24) | (flag & 0xffffff));
    return inizio;
  }
  void chiudi(std::size_t inizio) {
    metti32(inizio, static_cast<std::uint32_t>(s_.size() - inizio));
  }
  void metti32(std::size_t pos, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) s_[pos + i] = static_cast<char>(v >> (24 - 8 * i));
  }
  void metti64(std::size_t pos, std::uint64_t v) {
    metti32(pos, static_cast<std::uint32_t>(v >> 32));
    metti32(pos + 4, static_cast<std::uint32_t>(v));
  }
  std::size_t dove() const { return s_.size(); }

 private:
  std::string& s_;
};

void matrice(Scrittore& w) {
  const std::uint32_t m[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
  for (std::uint32_t v : m) w.u32(v);
}

bool sta_in_32(std::uint64_t v) { return v <= std::numeric_limits<std::uint32_t>::max(); }

// Creation and modification time, timescale (mvhd/mdhd only), duration: 32-bit fields when
// every value fits, else version 1.
void tempi(Scrittore& w, unsigned versione, std::uint64_t creazione,
           std::optional<std::uint32_t> scala, std::uint64_t durata) {
  if (versione == 1) {
    w.u64(creazione), w.u64(creazione);
    if (scala) w.u32(*scala);
    w.u64(durata);
  } else {
    w.u32(static_cast<std::uint32_t>(creazione)), w.u32(static_cast<std::uint32_t>(creazione));
    if (scala) w.u32(*scala);
    w.u32(static_cast<std::uint32_t>(durata));
  }
}

void ftyp(Scrittore& w, std::string_view maggiore, std::initializer_list<std::string_view> altri) {
  auto b = w.apri("ftyp");
  w.testo(maggiore);
  w.u32(0x200);
  for (std::string_view a : altri) w.testo(a);
  w.chiudi(b);
}

void mvhd(Scrittore& w, std::uint64_t creazione, std::uint64_t durata) {
  const unsigned v = sta_in_32(creazione) && sta_in_32(durata) ? 0 : 1;
  auto b = w.apri("mvhd", v, 0);
  tempi(w, v, creazione, kScalaFilmato, durata);
  w.u32(0x10000), w.u16(0x100), w.zeri(10);  // rate 1.0, volume 1.0, reserved
  matrice(w);
  w.zeri(24);  // pre_defined
  w.u32(2);    // next track
  w.chiudi(b);
}

void tkhd(Scrittore& w, std::uint64_t creazione, std::uint64_t durata, int larghezza, int altezza) {
  const unsigned v = sta_in_32(creazione) && sta_in_32(durata) ? 0 : 1;
  auto b = w.apri("tkhd", v, 3);  // enabled, in the presentation
  if (v == 1) {
    w.u64(creazione), w.u64(creazione), w.u32(1), w.u32(0), w.u64(durata);
  } else {
    w.u32(static_cast<std::uint32_t>(creazione)), w.u32(static_cast<std::uint32_t>(creazione));
    w.u32(1), w.u32(0), w.u32(static_cast<std::uint32_t>(durata));
  }
  w.zeri(8), w.u16(0), w.u16(0), w.u16(0), w.u16(0);  // layer, group, volume, reserved
  matrice(w);
  w.u32(static_cast<std::uint32_t>(larghezza) << 16);
  w.u32(static_cast<std::uint32_t>(altezza) << 16);
  w.chiudi(b);
}

// mdhd, hdlr, and minf up to stbl's sample description; leaves stbl (and minf, mdia) open for
// the tables, answering where they start.
struct Aperti {
  std::size_t mdia, minf, stbl;
};
Aperti mdia_fino_a_stsd(Scrittore& w, std::uint64_t creazione, std::uint32_t scala,
                        std::uint64_t durata, const std::string& voce) {
  Aperti a;
  a.mdia = w.apri("mdia");
  const unsigned v = sta_in_32(creazione) && sta_in_32(durata) ? 0 : 1;
  auto b = w.apri("mdhd", v, 0);
  tempi(w, v, creazione, scala, durata);
  w.u16(0x55c4), w.u16(0);  // language "und"
  w.chiudi(b);
  b = w.apri("hdlr", 0, 0);
  w.u32(0), w.testo("vide"), w.zeri(12), w.testo(std::string_view("VideoHandler\0", 13));
  w.chiudi(b);
  a.minf = w.apri("minf");
  b = w.apri("vmhd", 0, 1);
  w.zeri(8);
  w.chiudi(b);
  auto dinf = w.apri("dinf");
  b = w.apri("dref", 0, 0);
  w.u32(1);
  w.chiudi(w.apri("url ", 0, 1));  // the media is in this file
  w.chiudi(b);
  w.chiudi(dinf);
  a.stbl = w.apri("stbl");
  w.testo(voce);
  return a;
}

void chiudi(Scrittore& w, const Aperti& a) { w.chiudi(a.stbl), w.chiudi(a.minf), w.chiudi(a.mdia); }

// A table box of (count, value) runs of equal consecutive values.
template <class Valore>
void tabella_a_corse(Scrittore& w, std::string_view tipo, unsigned versione,
                     const std::vector<Tratto>& tratti, Valore valore) {
  auto b = w.apri(tipo, versione, 0);
  const std::size_t conta = w.dove();
  w.u32(0);
  std::uint32_t voci = 0, quanti = 0, ultimo = 0;
  for (const Tratto& t : tratti)
    for (const Campione& c : t.campioni) {
      const std::uint32_t v = valore(c);
      if (quanti > 0 && v == ultimo) {
        ++quanti;
        continue;
      }
      if (quanti > 0) w.u32(quanti), w.u32(ultimo), ++voci;
      quanti = 1, ultimo = v;
    }
  if (quanti > 0) w.u32(quanti), w.u32(ultimo), ++voci;
  w.metti32(conta, voci);
  w.chiudi(b);
}

void testa_mdat(Scrittore& w, std::uint64_t dati) {
  if (dati + 8 <= std::numeric_limits<std::uint32_t>::max()) {
    w.u32(static_cast<std::uint32_t>(dati + 8)), w.testo("mdat");
  } else {
    w.u32(1), w.testo("mdat"), w.u64(dati + 16);
  }
}

std::size_t lunghezza_testa_mdat(std::uint64_t dati) {
  return dati + 8 <= std::numeric_limits<std::uint32_t>::max() ? 8 : 16;
}

}  // namespace

std::string inizio_frammentato(const std::string& voce, std::uint32_t scala, int larghezza,
                               int altezza) {
  std::string s;
  Scrittore w(s);
  ftyp(w, "iso5", {"iso5", "iso6", "mp41"});
  auto moov = w.apri("moov");
  mvhd(w, 0, 0);
  auto trak = w.apri("trak");
  tkhd(w, 0, 0, larghezza, altezza);
  Aperti a = mdia_fino_a_stsd(w, 0, scala, 0, voce);
  for (std::string_view tipo : {"stts", "stsc", "stco"}) {
    auto b = w.apri(tipo, 0, 0);
    w.u32(0);
    w.chiudi(b);
  }
  auto stsz = w.apri("stsz", 0, 0);
  w.u32(0), w.u32(0);
  w.chiudi(stsz);
  chiudi(w, a);
  w.chiudi(trak);
  auto mvex = w.apri("mvex");
  auto trex = w.apri("trex", 0, 0);
  w.u32(1), w.u32(1), w.u32(0), w.u32(0), w.u32(0);  // track, description, no defaults
  w.chiudi(trex);
  w.chiudi(mvex);
  w.chiudi(moov);
  return s;
}

std::string testa_frammento(std::span<const Campione> c, std::uint64_t tfdt, std::uint32_t n) {
  std::string s;
  s.reserve(128 + 16 * c.size());
  Scrittore w(s);
  auto moof = w.apri("moof");
  auto mfhd = w.apri("mfhd", 0, 0);
  w.u32(n);
  w.chiudi(mfhd);
  auto traf = w.apri("traf");
  auto tfhd = w.apri("tfhd", 0, 0x020000);  // offsets from the start of moof
  w.u32(1);
  w.chiudi(tfhd);
  auto b = w.apri("tfdt", 1, 0);
  w.u64(tfdt);
  w.chiudi(b);
  // data offset, then per sample: duration, size, flags, composition offset (signed in v1)
  auto trun = w.apri("trun", 1, 0x1 | 0x100 | 0x200 | 0x400 | 0x800);
  w.u32(static_cast<std::uint32_t>(c.size()));
  const std::size_t scostamento = w.dove();
  w.u32(0);
  std::uint64_t dati = 0;
  for (const Campione& x : c) {
    w.u32(x.durata), w.u32(x.dimensione), w.u32(x.chiave ? kFlagChiave : kFlagNonChiave);
    w.u32(static_cast<std::uint32_t>(x.cts));
    dati += x.dimensione;
  }
  w.chiudi(trun);
  w.chiudi(traf);
  w.chiudi(moof);
  w.metti32(scostamento, static_cast<std::uint32_t>(s.size() + lunghezza_testa_mdat(dati)));
  testa_mdat(w, dati);
  return s;
}

std::string testa_esportazione(const std::vector<Tratto>& tratti_dati, const std::string& voce,
                               std::uint32_t scala, int larghezza, int altezza,
                               double creazione_unix) {
  std::vector<Tratto> tratti;
  std::size_t n = 0;
  std::uint64_t durata = 0, dati = 0;
  bool negativi = false, composti = false, tutte_chiavi = true;
  for (const Tratto& t : tratti_dati) {
    if (t.campioni.empty()) continue;
    tratti.push_back(t);
    n += t.campioni.size();
    for (const Campione& c : t.campioni) {
      durata += c.durata, dati += c.dimensione;
      negativi |= c.cts < 0, composti |= c.cts != 0, tutte_chiavi &= c.chiave;
    }
  }
  const std::uint64_t creazione = std::isfinite(creazione_unix) && creazione_unix > 0
                                      ? static_cast<std::uint64_t>(creazione_unix) + kDa1904
                                      : kDa1904;
  const std::uint64_t durata_filmato = scala ? (durata * kScalaFilmato + scala / 2) / scala : 0;

  std::string s;
  s.reserve(2048 + voce.size() + 24 * n + 20 * tratti.size());
  Scrittore w(s);
  ftyp(w, "isom", {"isom", "iso2", "mp41"});
  auto moov = w.apri("moov");
  mvhd(w, creazione, durata_filmato);
  auto trak = w.apri("trak");
  tkhd(w, creazione, durata_filmato, larghezza, altezza);
  Aperti a = mdia_fino_a_stsd(w, creazione, scala, durata, voce);
  tabella_a_corse(w, "stts", 0, tratti, [](const Campione& c) { return c.durata; });
  if (composti)
    tabella_a_corse(w, "ctts", negativi ? 1 : 0, tratti,
                    [](const Campione& c) { return static_cast<std::uint32_t>(c.cts); });
  if (!tutte_chiavi) {
    auto b = w.apri("stss", 0, 0);
    const std::size_t conta = w.dove();
    w.u32(0);
    std::uint32_t numero = 0, chiavi = 0;
    for (const Tratto& t : tratti)
      for (const Campione& c : t.campioni) {
        ++numero;
        if (c.chiave) w.u32(numero), ++chiavi;
      }
    w.metti32(conta, chiavi);
    w.chiudi(b);
  }
  auto b = w.apri("stsz", 0, 0);
  w.u32(0), w.u32(static_cast<std::uint32_t>(n));
  for (const Tratto& t : tratti)
    for (const Campione& c : t.campioni) w.u32(c.dimensione);
  w.chiudi(b);
  // One chunk per run: a new stsc entry wherever the run's length changes.
  b = w.apri("stsc", 0, 0);
  const std::size_t conta = w.dove();
  w.u32(0);
  std::uint32_t voci = 0;
  for (std::size_t i = 0; i < tratti.size(); ++i) {
    if (i > 0 && tratti[i].campioni.size() == tratti[i - 1].campioni.size()) continue;
    w.u32(static_cast<std::uint32_t>(i + 1)),
        w.u32(static_cast<std::uint32_t>(tratti[i].campioni.size())), w.u32(1);
    ++voci;
  }
  w.metti32(conta, voci);
  w.chiudi(b);
  b = w.apri("co64", 0, 0);
  w.u32(static_cast<std::uint32_t>(tratti.size()));
  const std::size_t blocchi = w.dove();
  w.zeri(8 * tratti.size());  // filled in below, once the length of everything before is known
  w.chiudi(b);
  chiudi(w, a);
  w.chiudi(trak);
  w.chiudi(moov);
  std::uint64_t pos = s.size() + lunghezza_testa_mdat(dati);
  for (std::size_t i = 0; i < tratti.size(); ++i) {
    w.metti64(blocchi + 8 * i, pos);
    for (const Campione& c : tratti[i].campioni) pos += c.dimensione;
  }
  testa_mdat(w, dati);
  return s;
}

}  // namespace nvr

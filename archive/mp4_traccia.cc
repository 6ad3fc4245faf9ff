#include "archive/mp4_traccia.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace nvr {

namespace {

constexpr std::uint64_t kMassimoMoov = 64ull << 20;
constexpr std::uint32_t kMassimoCampione = 64u << 20;  // one picture, however big

Errore illeggibile(const std::string& perche) {
  return Errore{0, "File video illeggibile: " + perche};
}

// The entries of a full box holding a count and then `larghezza`-byte entries, each read
// through `voce(i)` as the offset of its first byte in `dati`.
struct Tabella {
  std::string_view dati;  // the entries, nothing after
  std::uint32_t voci = 0;
  std::size_t larghezza = 0;
  std::uint32_t u32(std::uint32_t i, std::size_t campo = 0) const {
    return *be32_in(dati, i * larghezza + campo);
  }
  std::uint64_t u64(std::uint32_t i) const { return *be64_in(dati, i * larghezza); }
};

// `inizio`: bytes between version/flags and the count (stsz's sample_size).
std::optional<Tabella> tabella(const std::optional<Box>& b, std::size_t larghezza,
                               std::size_t inizio = 0) {
  if (!b) return std::nullopt;
  auto n = be32_in(b->corpo, 4 + inizio);
  if (!n) return std::nullopt;
  std::string_view dati = b->corpo.substr(8 + inizio);
  if (dati.size() / larghezza < *n) return std::nullopt;
  return Tabella{dati.substr(0, *n * larghezza), *n, larghezza};
}

unsigned versione(const Box& b) { return be8_in(b.corpo, 0); }

// Where the presentation of the track's media begins: the media time of the first edit that is
// not an empty one; 0 without an edit list.
std::optional<std::int64_t> inizio_modificato(std::string_view trak) {
  auto elst = box_lungo(trak, {"edts", "elst"});
  if (!elst) return 0;
  const bool v1 = versione(*elst) == 1;
  auto t = tabella(elst, v1 ? 20 : 12);
  if (!t) return std::nullopt;
  for (std::uint32_t i = 0; i < t->voci; ++i) {
    const std::int64_t m = v1 ? static_cast<std::int64_t>(*be64_in(t->dati, i * 20 + 8))
                              : static_cast<std::int32_t>(t->u32(i, 4));
    if (m != -1) return m;
  }
  return 0;
}

}  // namespace

Esito<Traccia> traccia_da_moov(std::string_view moov) {
  auto testa = testata_box(moov);
  if (!testa || testa->lunghezza != moov.size() || moov.substr(4, 4) != "moov")
    return illeggibile("il box moov è rovinato");
  std::optional<Box> trak;
  for (const Box& b : figli_box(moov.substr(testa->testata))) {
    auto hdlr = box_lungo(b.corpo, {"mdia", "hdlr"});
    if (b.tipo == "trak" && hdlr && hdlr->corpo.size() >= 12 &&
        hdlr->corpo.substr(8, 4) == "vide") {
      trak = b;
      break;
    }
  }
  auto info = info_da_moov(moov);
  if (!trak || !info) return illeggibile("nessuna traccia video");

  Traccia t;
  t.info = std::move(*info);
  auto mdhd = box_lungo(trak->corpo, {"mdia", "mdhd"});
  if (mdhd) t.scala = be32_in(mdhd->corpo, versione(*mdhd) == 1 ? 20 : 12).value_or(0);
  if (t.scala == 0) return illeggibile("manca la scala dei tempi (mdhd)");

  auto stbl = box_lungo(trak->corpo, {"mdia", "minf", "stbl"});
  if (!stbl) return illeggibile("manca la tabella dei campioni (stbl)");
  auto stsd = figlio_box(stbl->corpo, "stsd");
  if (!stsd) return illeggibile("manca la descrizione dei campioni (stsd)");
  t.voce = std::string(stsd->intero);

  auto stsz = figlio_box(stbl->corpo, "stsz");
  const std::uint32_t fissa = stsz ? be32_in(stsz->corpo, 4).value_or(0) : 0;
  std::optional<Tabella> dimensioni;
  if (fissa == 0) {
    dimensioni = tabella(stsz, 4, 4);
  } else if (auto n = stsz ? be32_in(stsz->corpo, 8) : std::nullopt) {
    dimensioni = Tabella{{}, *n, 0};
  }
  if (!dimensioni) return illeggibile("tabella stsz rovinata");
  const std::uint32_t n = dimensioni->voci;
  if (n == 0) return illeggibile("nessun fotogramma");
  if (n > kMassimiCampioni) return illeggibile("troppi fotogrammi");

  auto stts = tabella(figlio_box(stbl->corpo, "stts"), 8);
  auto stsc = tabella(figlio_box(stbl->corpo, "stsc"), 12);
  auto co = figlio_box(stbl->corpo, "co64");
  const bool co64 = co.has_value();
  if (!co64) co = figlio_box(stbl->corpo, "stco");
  auto blocchi = tabella(co, co64 ? 8 : 4);
  if (!stts || !stsc || !blocchi) return illeggibile("mancano tabelle dei campioni");
  auto ctts_box = figlio_box(stbl->corpo, "ctts");
  auto ctts = tabella(ctts_box, 8);
  if (ctts_box && !ctts) return illeggibile("tabella ctts rovinata");
  auto stss_box = figlio_box(stbl->corpo, "stss");
  auto stss = tabella(stss_box, 4);
  if (stss_box && !stss) return illeggibile("tabella stss rovinata");
  auto spostamento = inizio_modificato(trak->corpo);
  if (!spostamento) return illeggibile("tabella elst rovinata");

  t.campioni.resize(n);
  // Decode times and durations.
  std::uint32_t k = 0;
  std::int64_t dts = 0;
  for (std::uint32_t i = 0; i < stts->voci; ++i) {
    const std::uint32_t quanti = stts->u32(i), delta = stts->u32(i, 4);
    if (quanti > n - k) return illeggibile("le tabelle stts e stsz non concordano");
    for (std::uint32_t j = 0; j < quanti; ++j, ++k) {
      t.campioni[k].dts = dts;
      t.campioni[k].durata = delta;
      dts += delta;
    }
  }
  if (k != n) return illeggibile("le tabelle stts e stsz non concordano");
  t.durata = dts;

  // Composition offsets, shifted so that the first presented frame is at 0. Version 0 is read
  // as signed too: some writers put negative offsets there.
  k = 0;
  for (std::uint32_t i = 0; ctts && i < ctts->voci; ++i) {
    const std::uint32_t quanti = ctts->u32(i);
    const std::int64_t cts = static_cast<std::int32_t>(ctts->u32(i, 4)) - *spostamento;
    if (quanti > n - k) return illeggibile("le tabelle ctts e stsz non concordano");
    if (cts < std::numeric_limits<std::int32_t>::min() ||
        cts > std::numeric_limits<std::int32_t>::max())
      return illeggibile("tempi di presentazione fuori misura");
    for (std::uint32_t j = 0; j < quanti; ++j, ++k)
      t.campioni[k].cts = static_cast<std::int32_t>(cts);
  }
  if (ctts && k != n) return illeggibile("le tabelle ctts e stsz non concordano");
  if (!ctts && *spostamento != 0) {
    if (*spostamento > std::numeric_limits<std::int32_t>::max() ||
        -*spostamento < std::numeric_limits<std::int32_t>::min())
      return illeggibile("tempi di presentazione fuori misura");
    for (Campione& c : t.campioni) c.cts = static_cast<std::int32_t>(-*spostamento);
  }

  // Key frames: every sample when there is no stss.
  if (!stss) {
    for (Campione& c : t.campioni) c.chiave = true;
  } else {
    std::uint32_t prima = 0;
    for (std::uint32_t i = 0; i < stss->voci; ++i) {
      const std::uint32_t s = stss->u32(i);
      if (s <= prima || s > n) return illeggibile("tabella stss incoerente");
      t.campioni[s - 1].chiave = true;
      prima = s;
    }
  }

  // Sizes and offsets: chunk by chunk, the runs of stsc giving the samples per chunk.
  k = 0;
  for (std::uint32_t i = 0; i < stsc->voci; ++i) {
    const std::uint32_t primo = stsc->u32(i), per_blocco = stsc->u32(i, 4);
    const std::uint32_t fine = i + 1 < stsc->voci ? stsc->u32(i + 1) : blocchi->voci + 1;
    if (primo == 0 || fine <= primo || fine > blocchi->voci + 1 || per_blocco == 0)
      return illeggibile("tabella stsc incoerente");
    for (std::uint32_t b = primo; b < fine; ++b) {
      std::uint64_t pos = co64 ? blocchi->u64(b - 1) : blocchi->u32(b - 1);
      if (per_blocco > n - k) return illeggibile("le tabelle stsc e stsz non concordano");
      for (std::uint32_t j = 0; j < per_blocco; ++j, ++k) {
        Campione& c = t.campioni[k];
        c.dimensione = fissa ? fissa : dimensioni->u32(k);
        if (c.dimensione > kMassimoCampione) return illeggibile("fotogramma troppo grande");
        c.posizione = pos;
        pos += c.dimensione;
      }
    }
  }
  if (k != n) return illeggibile("le tabelle stsc e stsz non concordano");
  return t;
}

Esito<Traccia> leggi_traccia(const std::string& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return illeggibile(std::string("impossibile aprirlo (") + std::strerror(errno) + ")");
  struct Chiudi {
    int fd;
    ~Chiudi() { ::close(fd); }
  } chiudi{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return illeggibile("non è un file");
  const std::uint64_t misura = static_cast<std::uint64_t>(st.st_size);

  // Reads exactly [da, da + quanti) or fails.
  auto leggi = [&](std::uint64_t da, std::size_t quanti, char* dove) {
    std::size_t letti = 0;
    while (letti < quanti) {
      const ssize_t r = ::pread(fd, dove + letti, quanti - letti, static_cast<off_t>(da + letti));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      letti += static_cast<std::size_t>(r);
    }
    return true;
  };

  std::string moov;
  for (std::uint64_t pos = 0; pos + 8 <= misura;) {
    char testa[16];
    const std::size_t quanti = misura - pos >= 16 ? 16 : 8;
    if (!leggi(pos, quanti, testa)) return illeggibile("errore di lettura");
    auto t = testata_box(std::string_view(testa, quanti));
    if (!t) break;
    std::uint64_t lunghezza = t->lunghezza;
    if (lunghezza == 0 && be32_in(std::string_view(testa, 8), 0) == 0u) lunghezza = misura - pos;
    if (lunghezza == 0 || lunghezza > misura - pos) break;
    if (std::string_view(testa + 4, 4) == "moov") {
      if (lunghezza > kMassimoMoov) return illeggibile("box moov troppo grande");
      moov.resize(lunghezza);
      if (!leggi(pos, lunghezza, moov.data())) return illeggibile("errore di lettura");
      break;
    }
    pos += lunghezza;
  }
  if (moov.empty()) return illeggibile("manca il box moov (registrazione non finita?)");

  auto traccia = traccia_da_moov(moov);
  if (!traccia) return traccia;
  for (const Campione& c : traccia.valore().campioni)
    if (c.posizione > misura || c.dimensione > misura - c.posizione)
      return illeggibile("un fotogramma è oltre la fine del file");
  return traccia;
}

std::size_t chiave_prima_di(const Traccia& t, std::int64_t quando) {
  std::size_t trovata = 0;
  for (std::size_t i = 0; i < t.campioni.size(); ++i) {
    const Campione& c = t.campioni[i];
    if (!c.chiave) continue;
    // Key frames are never reordered past one another: past `quando`, so are the later ones.
    if (c.dts + c.cts > quando) break;
    trovata = i;
  }
  return trovata;
}

}  // namespace nvr

#include "web/flusso_riproduzione.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <span>

#include "archive/mp4_scrittura.h"

namespace nvr {

namespace {

using Intervallo = CorpoEsportazione::Intervallo;

constexpr const char* kNessuna = "Nessuna registrazione nel periodo scelto";

// One segment file open for reading at a time; closed when the reader goes.
class FileAperto {
 public:
  FileAperto() = default;
  FileAperto(const FileAperto&) = delete;
  FileAperto& operator=(const FileAperto&) = delete;
  ~FileAperto() { chiudi(); }

  bool apri(const std::string& percorso) {
    chiudi();
    fd_ = ::open(percorso.c_str(), O_RDONLY | O_CLOEXEC);
    // Read front to back: a larger read-ahead keeps a slow drive busy while the socket drains.
    if (fd_ >= 0) ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd_ >= 0;
  }
  void chiudi() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  // Exactly `n` bytes at `posizione`; false on an error or a file shorter than that.
  bool leggi(std::uint64_t posizione, char* dove, std::size_t n) const {
    while (n > 0) {
      const ssize_t r = ::pread(fd_, dove, n, static_cast<off_t>(posizione));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      dove += r;
      n -= static_cast<std::size_t>(r);
      posizione += static_cast<std::uint64_t>(r);
    }
    return true;
  }

 private:
  int fd_ = -1;
};

// The bytes still to send: some in memory (MP4 headers), then ranges of the files.
class Uscita {
 public:
  explicit Uscita(std::vector<std::string> file) : file_(std::move(file)) {}

  bool finita() const { return fuori_ == testa_.size() && prossimo_ == intervalli_.size(); }

  // Replaces what is left (call when finita()).
  void carica(std::string testa, std::vector<Intervallo> intervalli) {
    testa_ = std::move(testa);
    fuori_ = 0;
    intervalli_ = std::move(intervalli);
    prossimo_ = 0;
    dentro_ = 0;
  }

  // Copies the next bytes (at most `max`, and kMassimaLettura from a file) into `dove`. False
  // when a file cannot be opened or read; `n` is then 0.
  bool leggi(char* dove, std::size_t max, std::size_t& n) {
    n = 0;
    if (fuori_ < testa_.size()) {
      n = std::min(max, testa_.size() - fuori_);
      std::memcpy(dove, testa_.data() + fuori_, n);
      fuori_ += n;
      return true;
    }
    if (prossimo_ == intervalli_.size()) return true;
    const Intervallo& i = intervalli_[prossimo_];
    if (i.file != aperto_) {
      if (!file_aperto_.apri(file_[i.file])) return false;
      aperto_ = i.file;
    }
    const std::size_t quanti = static_cast<std::size_t>(
        std::min<std::uint64_t>({max, kMassimaLettura, i.lunghezza - dentro_}));
    if (!file_aperto_.leggi(i.posizione + dentro_, dove, quanti)) return false;
    n = quanti;
    dentro_ += quanti;
    if (dentro_ == i.lunghezza) {
      ++prossimo_;
      dentro_ = 0;
    }
    return true;
  }

 private:
  std::vector<std::string> file_;
  FileAperto file_aperto_;
  std::size_t aperto_ = static_cast<std::size_t>(-1);
  std::string testa_;
  std::size_t fuori_ = 0;
  std::vector<Intervallo> intervalli_;
  std::size_t prossimo_ = 0;
  std::uint64_t dentro_ = 0;  // bytes of intervalli_[prossimo_] already out
};

// Samples lying one after the other in their file become one range.
void aggiungi_intervalli(std::span<const Campione> c, std::size_t file,
                         std::vector<Intervallo>& intervalli) {
  for (const Campione& x : c) {
    if (x.dimensione == 0) continue;
    if (!intervalli.empty() && intervalli.back().file == file &&
        intervalli.back().posizione + intervalli.back().lunghezza == x.posizione)
      intervalli.back().lunghezza += x.dimensione;
    else
      intervalli.push_back({file, x.posizione, x.dimensione});
  }
}

class Sha256 {
 public:
  Sha256() : ctx_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr); }
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  ~Sha256() { EVP_MD_CTX_free(ctx_); }
  void aggiungi(const char* dati, std::size_t n) { EVP_DigestUpdate(ctx_, dati, n); }
  std::string esadecimale() {
    unsigned char somma[EVP_MAX_MD_SIZE];
    unsigned int lunghezza = 0;
    EVP_DigestFinal_ex(ctx_, somma, &lunghezza);
    static constexpr char kCifre[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < lunghezza; ++i) {
      hex.push_back(kCifre[somma[i] >> 4]);
      hex.push_back(kCifre[somma[i] & 15]);
    }
    return hex;
  }

 private:
  EVP_MD_CTX* ctx_;
};

std::vector<std::string> file_di(const std::vector<SegmentoPiano>& segmenti) {
  std::vector<std::string> file;
  for (const SegmentoPiano& s : segmenti) file.push_back(s.riga.file);
  return file;
}

std::uint32_t be32(const std::string& s, std::size_t i) {
  return static_cast<std::uint32_t>(static_cast<unsigned char>(s[i])) << 24 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(s[i + 1])) << 16 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(s[i + 2])) << 8 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(s[i + 3]));
}

// A sample entry without its btrt box: the recorder's muxer writes each segment's own bit rate
// there, which says nothing about how its samples decode. Unchanged when it does not parse as
// stsd with one visual entry.
std::string senza_btrt(const std::string& voce) {
  constexpr std::size_t kFigli = 16 + 8 + 78;  // stsd header, then the visual entry's fields
  if (voce.size() < kFigli || be32(voce, 16) != voce.size() - 16) return voce;
  std::string resto = voce.substr(0, kFigli);
  for (std::size_t i = kFigli; i < voce.size();) {
    const std::uint32_t n = i + 8 <= voce.size() ? be32(voce, i) : 0;
    if (n < 8 || n > voce.size() - i) return voce;
    if (voce.compare(i + 4, 4, "btrt") != 0) resto.append(voce, i, n);
    i += n;
  }
  return resto;
}

// Whether samples described by `b` can follow those of `a` under `a`'s init segment or moov.
bool stessa_voce(const Traccia& a, const Traccia& b) {
  return a.scala == b.scala && (a.voce == b.voce || senza_btrt(a.voce) == senza_btrt(b.voce));
}

class FlussoRiproduzione : public Flusso {
 public:
  explicit FlussoRiproduzione(PartenzaFlusso p)
      : p_(std::move(p)), uscita_(file_di(p_.segmenti)), traccia_(std::move(p_.prima)) {
    p_.prima = Traccia{};
    scala_ = traccia_.scala;
    campione_ = p_.chiave;
    oltre_ = campioni_prima_di(traccia_, avvio(p_.segmenti[0]), p_.a);
    if (campione_ < traccia_.campioni.size()) spostamento_ = -traccia_.campioni[campione_].dts;
    uscita_.carica(inizio_frammentato(traccia_.voce, traccia_.scala, traccia_.info.larghezza,
                                      traccia_.info.altezza),
                   {});
  }

  Lettura leggi(char* dove, std::size_t max, std::size_t& n, std::function<void()>) override {
    for (;;) {
      if (!uscita_.finita()) {
        if (!uscita_.leggi(dove, max, n)) {
          finito_ = true;
          return Lettura::kFine;
        }
        if (n > 0) return Lettura::kDati;
        continue;
      }
      if (finito_ || !prepara_frammento()) {
        finito_ = true;
        return Lettura::kFine;
      }
    }
  }
  std::string tipo() const override { return "video/mp4"; }

 private:
  // The next GOP's moof and mdat header, and its samples' ranges. False at the end.
  bool prepara_frammento() {
    while (campione_ >= oltre_) {
      if (oltre_ < traccia_.campioni.size() || !prossimo_segmento()) return false;
    }
    std::size_t fine = campione_ + 1;
    while (fine < oltre_ && !traccia_.campioni[fine].chiave) ++fine;
    std::span<const Campione> gop(traccia_.campioni.data() + campione_, fine - campione_);
    const std::int64_t tfdt = gop.front().dts + spostamento_;
    std::vector<Intervallo> intervalli;
    aggiungi_intervalli(gop, segmento_, intervalli);
    uscita_.carica(testa_frammento(gop, static_cast<std::uint64_t>(std::max<std::int64_t>(tfdt, 0)),
                                   ++numero_),
                   std::move(intervalli));
    fine_uscita_ = gop.back().dts + gop.back().durata + spostamento_;
    campione_ = fine;
    return true;
  }

  // Moves to the next segment of the span with a track like the first one's.
  bool prossimo_segmento() {
    if (segmento_ + 1 >= p_.segmenti.size()) return false;
    const SegmentoPiano& prima = p_.segmenti[segmento_];
    SegmentoPiano& dopo = p_.segmenti[segmento_ + 1];
    auto letta = leggi_traccia(dopo.riga.file);
    if (!letta || letta.valore().campioni.empty()) return false;
    Traccia t = std::move(letta).valore();
    if (!stessa_voce(traccia_, t)) return false;  // one init segment cannot say both
    dopo.durata = static_cast<double>(t.durata) / t.scala;
    const double da_muro = avvio(dopo);
    std::int64_t inizio_uscita = fine_uscita_;
    if (!uniti(prima.riga, dopo.riga)) {
      // After a gap, media time keeps mapping to the wall clock; never back in decode time.
      inizio_uscita = std::max(
          inizio_uscita, static_cast<std::int64_t>(std::llround((da_muro - p_.inizio) * scala_)));
    }
    spostamento_ = inizio_uscita - t.campioni.front().dts;
    traccia_ = std::move(t);
    ++segmento_;
    campione_ = 0;
    oltre_ = campioni_prima_di(traccia_, da_muro, p_.a);
    return true;
  }

  PartenzaFlusso p_;
  Uscita uscita_;
  Traccia traccia_;  // of p_.segmenti[segmento_]
  std::uint32_t scala_ = 0;
  std::size_t segmento_ = 0;
  std::size_t campione_ = 0;      // next sample of traccia_ to send
  std::size_t oltre_ = 0;         // one past the last sample of traccia_ to send
  std::int64_t spostamento_ = 0;  // decode time sent = dts + spostamento_
  std::int64_t fine_uscita_ = 0;  // decode time sent at the end of the last sample
  std::uint32_t numero_ = 0;
  bool finito_ = false;
};

class FlussoEsportazione : public Flusso {
 public:
  FlussoEsportazione(CorpoEsportazione c, Impronta impronta,
                     std::function<void(const std::string&)> al_termine)
      : byte_(c.byte), uscita_(std::move(c.file)), al_termine_(std::move(al_termine)) {
    if (impronta == Impronta::calcola) sha_ = std::make_unique<Sha256>();
    uscita_.carica(std::move(c.testa), std::move(c.intervalli));
  }

  Lettura leggi(char* dove, std::size_t max, std::size_t& n, std::function<void()>) override {
    if (uscita_.finita()) return Lettura::kFine;
    if (!uscita_.leggi(dove, max, n) || n == 0) {
      sha_.reset();  // a body cut short has no hash to remember
      uscita_.carica({}, {});
      return Lettura::kFine;
    }
    if (sha_) {
      sha_->aggiungi(dove, n);
      // At the last byte, not at kFine: a server that knows the length never asks again.
      if (uscita_.finita()) {
        if (al_termine_) al_termine_(sha_->esadecimale());
        sha_.reset();
      }
    }
    return Lettura::kDati;
  }
  std::string tipo() const override { return "video/mp4"; }
  std::optional<std::uint64_t> lunghezza() const override { return byte_; }

 private:
  std::uint64_t byte_;
  Uscita uscita_;
  std::unique_ptr<Sha256> sha_;
  std::function<void(const std::string&)> al_termine_;
};

}  // namespace

std::size_t campioni_prima_di(const Traccia& t, double avvio, double a) {
  const double scala = t.scala > 0 ? t.scala : 1;
  auto it = std::partition_point(t.campioni.begin(), t.campioni.end(), [&](const Campione& c) {
    return avvio + static_cast<double>(c.dts) / scala < a;
  });
  return static_cast<std::size_t>(it - t.campioni.begin());
}

std::shared_ptr<Flusso> flusso_riproduzione(PartenzaFlusso p) {
  return std::make_shared<FlussoRiproduzione>(std::move(p));
}

Esito<CorpoEsportazione> prepara_esportazione(const std::vector<SegmentoPiano>& segmenti, double da,
                                              double a) {
  CorpoEsportazione c;
  std::vector<Traccia> tracce;
  std::vector<std::size_t> quale;  // for each track, its index in `segmenti`
  std::vector<std::pair<std::size_t, std::size_t>> scelti;  // samples [da, a) of each track
  const SegmentoPiano* precedente = nullptr;
  for (std::size_t i = 0; i < segmenti.size(); ++i) {
    SegmentoPiano s = segmenti[i];
    auto letta = leggi_traccia(s.riga.file);
    if (!letta || letta.valore().campioni.empty()) {
      if (tracce.empty()) continue;  // an unreadable first file counts as missing
      break;
    }
    Traccia t = std::move(letta).valore();
    if (!tracce.empty() && !stessa_voce(t, tracce.front())) break;
    s.durata = static_cast<double>(t.durata) / t.scala;
    const double da_muro = avvio(s);
    std::size_t primo = 0;
    if (tracce.empty() && da > da_muro)
      primo = chiave_prima_di(t, std::llround((da - da_muro) * t.scala));
    const std::size_t oltre = campioni_prima_di(t, da_muro, a);
    if (oltre <= primo) break;
    if (tracce.empty())
      c.inizio = da_muro + static_cast<double>(t.campioni[primo].dts) / t.scala;
    else if (!uniti(precedente->riga, s.riga))
      c.buchi.emplace_back(precedente->riga.fine, da_muro);
    const Campione& ultimo = t.campioni[oltre - 1];
    c.fine = da_muro + static_cast<double>(ultimo.dts + ultimo.durata) / t.scala;
    precedente = &segmenti[i];
    quale.push_back(i);
    scelti.emplace_back(primo, oltre);
    tracce.push_back(std::move(t));
  }
  if (tracce.empty()) return Errore{404, kNessuna};

  std::vector<Tratto> tratti;
  for (std::size_t k = 0; k < tracce.size(); ++k) {
    std::span<const Campione> c_k(tracce[k].campioni.data() + scelti[k].first,
                                  scelti[k].second - scelti[k].first);
    tratti.push_back(Tratto{c_k});
    c.file.push_back(segmenti[quale[k]].riga.file);
    aggiungi_intervalli(c_k, k, c.intervalli);
  }
  const Traccia& t0 = tracce.front();
  c.testa =
      testa_esportazione(tratti, t0.voce, t0.scala, t0.info.larghezza, t0.info.altezza, c.inizio);
  c.byte = c.testa.size();
  for (const Intervallo& i : c.intervalli) c.byte += i.lunghezza;
  return c;
}

std::shared_ptr<Flusso> flusso_esportazione(CorpoEsportazione c, Impronta impronta,
                                            std::function<void(const std::string&)> al_termine) {
  return std::make_shared<FlussoEsportazione>(std::move(c), impronta, std::move(al_termine));
}

Esito<std::string> impronta_esportazione(const CorpoEsportazione& c) {
  Uscita uscita(c.file);
  uscita.carica(c.testa, c.intervalli);
  Sha256 sha;
  std::string pezzo(kMassimaLettura, '\0');
  std::uint64_t letti = 0;
  while (!uscita.finita()) {
    std::size_t n = 0;
    if (!uscita.leggi(pezzo.data(), pezzo.size(), n))
      return Errore{500, "Impossibile leggere una registrazione del periodo"};
    sha.aggiungi(pezzo.data(), n);
    letti += n;
  }
  if (letti != c.byte) return Errore{500, "Impossibile leggere una registrazione del periodo"};
  return sha.esadecimale();
}

}  // namespace nvr

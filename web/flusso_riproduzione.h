// The bodies of playback: a fragmented MP4 stream over a span of recorded segments, and an
// exported progressive MP4 of the same samples. Samples are copied from the segment files as
// they are (no re-encoding), read with pread in ranges of at most kMassimaLettura bytes, so
// that neither body ever holds a whole segment in memory nor blocks long per read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "archive/mp4_traccia.h"
#include "archive/piano_riproduzione.h"
#include "core/esito.h"
#include "core/richiesta.h"

namespace nvr {

inline constexpr std::size_t kMassimaLettura = 1 << 20;

// The samples of track `t` (of a segment starting at wall time `avvio`) whose wall decode time
// avvio + dts / scala lies before `a`: the index one past the last of them.
std::size_t campioni_prima_di(const Traccia& t, double avvio, double a);

// Where a stream starts, decided before its first byte.
struct PartenzaFlusso {
  std::vector<SegmentoPiano> segmenti;  // the span's segments in order, files present
  Traccia prima;                        // the track of segmenti[0], already read
  std::size_t chiave = 0;               // the sample of `prima` to start from (a key frame)
  double inizio = 0;                    // wall time of media time 0 (X-Nvr-Inizio)
  double a = 0;                         // samples decoded at or after this are not sent
};

// The stream of `p`: the init segment, then one fragment per GOP. Decode times run on without a
// break across segments of one run; the first segment after a gap starts at its wall time minus
// p.inizio. Later segments' tracks are read when the stream reaches them; the stream ends at
// `a`, at a segment whose sample entry or timescale differs from the first one's, and at a file
// that cannot be read (after the last whole fragment). Each read blocks at most for one moov or
// one range of kMassimaLettura bytes.
std::shared_ptr<Flusso> flusso_riproduzione(PartenzaFlusso p);

// An exported file, laid out before its first byte: ftyp + moov + the mdat header, then the
// samples' bytes as ranges of the segments' files.
struct CorpoEsportazione {
  struct Intervallo {
    std::size_t file = 0;  // index in `file`
    std::uint64_t posizione = 0;
    std::uint64_t lunghezza = 0;
  };
  std::string testa;
  std::vector<std::string> file;
  std::vector<Intervallo> intervalli;
  std::uint64_t byte = 0;   // the whole file
  double inizio = 0;        // wall time of the first sample (a key frame)
  double fine = 0;          // wall time of the end of the last sample
  std::vector<Buco> buchi;  // the gaps left out between the runs placed back to back
};

// Lays out the export of [da, a) over `segmenti` (the span's segments in order, files present):
// from the key frame at or before `da` to the last sample decoded before `a`; a segment whose
// sample entry or timescale differs from the first one's ends it. Reads every segment's moov
// (blocks on the disk). Errors: the first segment's track cannot be read, or no sample falls
// in the span -> Errore{404, message for the user}.
Esito<CorpoEsportazione> prepara_esportazione(const std::vector<SegmentoPiano>& segmenti, double da,
                                              double a);

// The bytes of `c` as a body of known length. When every byte went out, `al_termine` receives
// the SHA-256 (lower-case hex) of the body, if `calcola_impronta`.
enum class Impronta { calcola, tralascia };
std::shared_ptr<Flusso> flusso_esportazione(CorpoEsportazione c, Impronta impronta,
                                            std::function<void(const std::string&)> al_termine);

// The SHA-256 (lower-case hex) of the bytes flusso_esportazione(c) sends, reading them all
// without sending them. Blocks on the disk. Error when a file cannot be read to its end.
Esito<std::string> impronta_esportazione(const CorpoEsportazione& c);

}  // namespace nvr

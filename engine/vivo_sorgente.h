// One camera's live source: one ffmpeg writing fragmented MP4 to a pipe, one thread reading it,
// and every viewer of that camera fed from it.
//
// The source's state (its memory of recent fragments, its viewers and their queues, whether it
// has ended) is guarded by its mutex m_, taken briefly and never across a process start, a
// signal-and-wait or a viewer's wake-up callback. The registry's mutex (engine/vivo.h) is never
// taken while holding m_.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/esito.h"
#include "core/evento.h"
#include "core/processo.h"
#include "core/stato.h"
#include "engine/mp4_frammenti.h"
#include "engine/vivo_coda.h"

namespace nvr {

// How long a source without viewers keeps its ffmpeg, for a viewer that only reloads the page.
inline constexpr double kAttesaSenzaSpettatori = 5.0;
// How long a source waits for its first fragment, and then for each next one, before it ends
// with an error: a camera that answers nothing never leaves a viewer hanging.
inline constexpr double kAttesaDati = 6.0;

// What a viewer's read found.
struct Lettura {
  enum class Stato {
    dati,    // `dati` holds the next bytes of the stream (the first ones start with ftyp)
    niente,  // nothing yet: ask again later
    finito,  // the stream is over for this viewer; `motivo` says why, in Italian
  };
  Stato stato = Stato::niente;
  std::string dati;
  std::string motivo;
};

class SorgenteVivo;

// A viewer of one camera. Not to be shared between threads without the caller's own lock,
// except that the wake-up callback may run on the source's thread at any time.
class Spettatore {
 public:
  Spettatore(std::shared_ptr<SorgenteVivo> s, int id) : sorgente_(std::move(s)), id_(id) {}
  // Leaves the source; the last viewer to leave starts its kAttesaSenzaSpettatori countdown.
  ~Spettatore();
  Spettatore(const Spettatore&) = delete;
  Spettatore& operator=(const Spettatore&) = delete;

  // Blocks up to `secondi` for something to read: data (what is queued, up to about 1 MiB),
  // the end, or nothing when the time passes. Queued data comes before the end.
  Lettura prossimo(double secondi);
  // The same without blocking: for a server that suspends the request and resumes it when the
  // wake-up callback runs.
  Lettura prova();
  // `sveglia` runs (on the source's thread, no lock held; it must not block nor call into this
  // viewer) whenever prova() may answer something new: data or the end. It runs once at once
  // when something is already waiting. Replaces any earlier callback; an empty one removes it.
  void al_risveglio(std::function<void()> sveglia);
  // Codec and size of the stream, once the source has read its initialisation segment (always
  // so after the first data).
  std::optional<InfoVideo> info() const;
  CamId telecamera() const;

 private:
  std::shared_ptr<SorgenteVivo> sorgente_;
  int id_;
};

// A live source's figures, for the status.
struct StatoSorgente {
  CamId cam = 0;
  pid_t pid = 0;  // 0 before the start and after the end
  int spettatori = 0;
  double da = 0.0;                // start, epoch seconds
  std::size_t byte_memoria = 0;   // fragments kept for viewers that join
  std::size_t frammenti = 0;      // read since the start
  std::optional<InfoVideo> info;  // after the initialisation segment
  bool finita = false;
};

class SorgenteVivo : public std::enable_shared_from_this<SorgenteVivo> {
 public:
  // `alla_fine` runs once with this source, on the source's thread with no lock held, when the
  // source ends (before its ffmpeg is stopped): the registry forgets it there.
  SorgenteVivo(CamId cam, std::string nome, std::function<void(SorgenteVivo*)> alla_fine);
  SorgenteVivo(const SorgenteVivo&) = delete;
  SorgenteVivo& operator=(const SorgenteVivo&) = delete;

  // Starts `argomenti` (argomenti_vivo of stream `url`) with its standard output and error on
  // pipes, and the thread that reads them. Does not block on the camera. On failure ("ffmpeg
  // non parte: <reason>") the source has ended with that reason. Call it once, with no lock held.
  Esito<bool> avvia(const std::vector<std::string>& argomenti, const std::string& url);

  // A new viewer: it first gets the initialisation segment, then the fragments from the most
  // recent key fragment on, then each new fragment. nullptr when the source has ended.
  std::unique_ptr<Spettatore> iscrivi();

  // Ends the source now (its viewers get `motivo`) and stops its ffmpeg. Never blocks.
  void chiudi(const std::string& motivo);
  // Blocks until the source's thread is over (its ffmpeg reaped), at most `secondi`; true if so.
  bool attendi_fine(double secondi);

  // The initialisation segment and the most recent key fragment, joined: a stream ffmpeg can
  // decode one picture from. Nothing while there is none.
  std::optional<std::string> ultima_immagine() const;
  StatoSorgente stato() const;

 private:
  friend class Spettatore;
  struct Posto {
    CodaSpettatore coda;
    bool finito = false;
    std::string motivo;
    std::function<void()> sveglia;
  };

  void leggi_tutto(int fd_out, int fd_err, std::string url);  // the thread's body
  void pubblica(std::vector<PezzoMp4> pezzi, const std::optional<InfoVideo>& info);
  void termina(const std::string& motivo);  // ends every viewer, once
  void lascia(int id);
  Lettura leggi_posto(int id);                            // must hold m_
  void sveglia(std::vector<std::function<void()>>& chi);  // no lock held

  const CamId cam_;
  const std::string nome_;
  std::function<void(SorgenteVivo*)> alla_fine_;  // the thread's only

  mutable std::mutex m_;
  std::condition_variable cv_;        // data or the end for some viewer; with m_
  MemoriaVivo memoria_;               // guarded by m_
  std::map<int, Posto> posti_;        // guarded by m_
  int prossimo_id_ = 0;               // guarded by m_
  bool finita_ = false;               // guarded by m_
  std::string motivo_fine_;           // guarded by m_
  std::optional<InfoVideo> info_;     // guarded by m_
  std::shared_ptr<Processo> proc_;    // guarded by m_
  double da_ = 0.0;                   // guarded by m_
  double senza_spettatori_da_ = 0.0;  // guarded by m_; monotonic seconds, 0 with viewers
  std::size_t frammenti_ = 0;         // guarded by m_
  bool chiudere_ = false;             // guarded by m_
  Evento fatto_;                      // the thread is over
};

}  // namespace nvr

// All process-wide state of the recorder, created once at load and never re-created.
//
// Lock order: _giro_lock before _lock. _lock is never held across a process start, a
// signal-and-wait, SQLite, a mount or a file move: take a snapshot, act, publish again.
// The small status records are each behind their own mutex and are replaced whole, so a reader
// sees the old or the new value; a race between two writers only repeats a probe.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "core/evento.h"
#include "core/host.h"
#include "core/json.h"
#include "core/processo.h"

namespace nvr {

using CamId = std::int64_t;

// ---- Constants ----

// Where the recorder creates its own mount points; also an allowed root for the archive.
inline constexpr std::string_view RADICE_MONTAGGI = "/media/zuna_nvr";
// Italian short weekday names, Monday first (index 0 = Monday).
inline constexpr std::array<std::string_view, 7> GIORNI_IT = {"lun", "mar", "mer", "gio",
                                                              "ven", "sab", "dom"};
// The recording modes: always, by weekly schedule, by events.
inline constexpr std::array<std::string_view, 3> MODI = {"sempre", "orari", "eventi"};

bool modo_valido(std::string_view modo);

// The mount root in force: RADICE_MONTAGGI, unless a test moved it into a temporary folder.
std::string radice_montaggi();
void imposta_radice_montaggi_per_test(std::string cartella);  // "" restores the constant

// ---- The host ----

// The host the recorder is attached to; absent until collega sets it, then never changed.
class RiferimentoHost {
 public:
  std::shared_ptr<Host> get() const;
  // Sets the host if none is set yet; answers whether it did.
  bool imposta_se_assente(std::shared_ptr<Host> host);
  void azzera_per_test();

 private:
  mutable std::mutex m_;
  std::shared_ptr<Host> host_;
};
extern RiferimentoHost A;
inline std::shared_ptr<Host> host_attuale() { return A.get(); }

// ---- Locks and signals ----

extern std::recursive_mutex _lock;  // the recorder table and the engine's per-camera tables
extern std::mutex _indice_lock;     // one index run at a time (try_lock: a second caller leaves)
extern std::mutex _giro_lock;       // one engine pass at a time; also held by bulk deletion
extern Evento _sveglia;             // wakes the engine before its wait ends

// ---- Shared tables (guarded by _lock) ----

// An open log file shared by the copies of a recorder record; closed once.
class FileLog {
 public:
  explicit FileLog(int fd) : fd_(fd) {}
  ~FileLog() { chiudi(); }
  FileLog(const FileLog&) = delete;
  FileLog& operator=(const FileLog&) = delete;
  int fd() const;
  void chiudi();  // idempotent, never fails

 private:
  mutable std::mutex m_;
  int fd_;
};

// A running ffmpeg recorder.
struct Registratore {
  std::shared_ptr<Processo> proc;
  std::shared_ptr<FileLog> log;  // null when the log could not be opened
  double da = 0.0;               // start time, epoch seconds
  std::string motivo;            // "continua", "orario" or "evento"
  std::string cartella;          // the in-progress folder it writes into
  int segmento = 300;            // segment length it was started with, seconds
  int errori = 0;                // failures carried over from the previous record
  std::string ultimo_errore;
};

// The last failure of a camera's recorder.
struct ErroreRecente {
  int n = 0;           // consecutive failures
  std::string testo;   // last error text
  double ts = 0.0;     // when, epoch seconds
};

extern std::map<CamId, Registratore> _processi;
extern std::map<CamId, double> _stato_eventi;        // last moment an entity of the camera was active
extern std::map<std::string, std::string> _ultimi_stati;  // entity id -> "on"/"off" last seen
extern std::map<CamId, ErroreRecente> _errori_recenti;
extern std::map<CamId, std::set<std::string>> _in_corso_precedenti;  // earlier in-progress folders
extern std::set<std::string> _non_spostabili;        // segments whose move failed

// ---- Status records (each behind its own mutex, replaced whole) ----

template <class T>
class Condiviso {
 public:
  Condiviso() = default;
  explicit Condiviso(T v) : v_(std::move(v)) {}
  T get() const {
    std::lock_guard l(m_);
    return v_;
  }
  void set(T v) {
    std::lock_guard l(m_);
    v_ = std::move(v);
  }
  // Changes the value in place under the mutex; `f` must not block.
  template <class F>
  void modifica(F&& f) {
    std::lock_guard l(m_);
    f(v_);
  }

 private:
  mutable std::mutex m_;
  T v_{};
};

struct Problema {
  std::string testo;  // the system-wide problem, "" when all is well
};
struct Installazione {
  std::string testo;
  bool in_corso = false;
};
struct FfmpegInfo {
  std::optional<int> major;
};
struct StatoSudo {
  std::optional<bool> ok;  // absent: never probed
  double ts = 0.0;
  std::string err;
};
// Size and free space of a filesystem, as shown to users (GB of 10^9 bytes, one decimal).
struct Spazio {
  double totale_gb = 0.0;
  double libero_gb = 0.0;
  int usato_pct = 0;  // used share, rounded half to even; 0 for a zero-sized filesystem
  Json come_json() const;  // {totale_gb, libero_gb, usato_pct}
};

struct CacheSpazio {
  std::string cartella;
  std::optional<Spazio> spazio;  // absent when it could not be read
  double ts = 0.0;
};
struct CachePresente {
  double ts = 0.0;
  bool val = false;
  std::string firma;
};
// What the archive overview last learned of one folder: how many of the rows indexed in it had
// no file. It holds while the folder looks the same from outside (`firma_cartella`: identity,
// modification and change times) and the names indexed in it are the same (`firma_righe`).
struct MancantiCartella {
  std::string firma_cartella;
  std::uint64_t firma_righe = 0;
  std::int64_t mancanti = 0;
};

extern Condiviso<Problema> _problema;
extern Condiviso<Installazione> _installazione;
extern Condiviso<FfmpegInfo> _ffmpeg_info;
extern Condiviso<StatoSudo> _sudo;
extern Condiviso<CacheSpazio> _cache_spazio;
extern Condiviso<CachePresente> _cache_presente;
extern Condiviso<std::map<std::string, MancantiCartella>> _mancanti_per_cartella;

// ---- Engine job time stamps (engine thread only; 0.0 so that every job runs at the first pass)

extern double _ultimo_indice;
extern double _ultima_pulizia;
extern double _ultimo_allineamento;
extern double _ultimo_profondo;

// Puts every table, cache and time stamp back to its load-time value and detaches the host.
// For tests only: call it with no recorder running and no engine thread.
void azzera_stato_per_test();

}  // namespace nvr

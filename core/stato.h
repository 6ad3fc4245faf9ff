// What the whole recorder shares: its constants and the host it is attached to.
//
// Everything else lives with the module that owns it, behind that module's functions: the
// recorder table and the engine's locks in engine/, the index's tables in archive/, the mount
// and root-rights caches in storage/, the installation's progress in web/.
//
// Lock order across modules: the engine's pass lock (engine/motore.h) before the recorder table's
// mutex (engine/registratori.h); every other mutex is taken alone and never across a process
// start, a signal-and-wait, SQLite, a mount or a file move.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "core/host.h"

namespace nvr {

using CamId = std::int64_t;

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

// The host the recorder is attached to; absent until collega sets it, then never changed.
class RiferimentoHost {
 public:
  std::shared_ptr<Host> get() const;
  // Sets the host if none is set yet; answers whether it did.
  bool imposta_se_assente(std::shared_ptr<Host> host);
  void azzera_per_test();

 private:
  mutable std::mutex m_;
  std::shared_ptr<Host> host_;  // guarded by m_
};
extern RiferimentoHost A;
inline std::shared_ptr<Host> host_attuale() { return A.get(); }

}  // namespace nvr

// The archive check before every engine pass, split into what it decides and what it does.
//
// The decisions are pure functions of what was observed and of the time; the steps touch the
// disk, the mounts and the configuration and say what they found. The engine runs the steps in
// order and acts on the verdicts where they concern it (stopping the recorders before a dead
// mount goes, running retention when the archive is full).
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "core/config.h"
#include "storage/montaggi.h"

namespace nvr {

// Re-mount attempts of a drive or share that went away are this far apart at least: a mount
// can take over a minute, and the engine asks every few seconds.
inline constexpr double kAttesaRimontaggio = 30.0;

// The last failed automatic mount: when, and the message the status showed.
struct MountFallito {
  double ts = 0.0;
  std::string msg;
};

// What the check saw of the destination's mount.
struct VistaMontaggio {
  bool esterna = false;    // a USB drive or a network share, not a local folder
  std::string mountpoint;  // the one the configuration names; "" for none
  bool montato = false;    // it is a mount point now
  bool vivo = false;       // it answers within its time limit
};

enum class AzioneMontaggio {
  nessuna,           // mounted and alive, or nothing to mount
  aspetta,           // a mount failed less than kAttesaRimontaggio ago: answer its message
  rimonta,           // not mounted: mount it again
  stacca_e_rimonta,  // mounted but dead: stop the recorders, detach it lazily, mount again
};

struct VerdettoMontaggio {
  AzioneMontaggio azione = AzioneMontaggio::nessuna;
  std::string messaggio;  // with `aspetta`: the last failure's message
};

// Pure. A local destination, or one without a mount point, needs nothing.
VerdettoMontaggio valuta_montaggio(const VistaMontaggio& vista, const MountFallito& ultimo,
                                   double adesso);

// Pure: `cartella` moved from under `vecchio` to the same place under `nuovo` (trailing "/"
// ignored); `nuovo` itself for `cartella` == `vecchio`.
std::string cartella_seguita(const std::string& cartella, const std::string& vecchio,
                             const std::string& nuovo);

// Pure: whether the free space is below the floor. An unreadable space is not below it (the
// recorder keeps recording rather than stopping on a doubt).
bool sotto_la_soglia(const std::optional<Spazio>& spazio, double minimo_gb);

// Pure: "Spazio esaurito sull'archivio (%.1f GB liberi)".
std::string messaggio_spazio_esaurito(double libero_gb);

// ---- Steps (engine thread, no lock held) ----

// Looks at the configured destination's mount (time-limited: a dead share answers "not alive").
VistaMontaggio osserva_montaggio(const Config& cfg);

// The last failed automatic mount (kept for the throttle and the status).
MountFallito ultimo_mount_fallito();

// Detaches the dead mount `mp` lazily (umount -l, 20 s) and logs
// "archivio <mp> non risponde piu': smontato, si riprova". The recorders must be stopped first.
void stacca_montaggio_morto(const std::string& mp);

// Mounts the destination again: (true, "") or (false, the status message) — "Cartella di rete
// non raggiungibile: ..." or "Unita' USB non collegata: ...", remembered as the last failure.
// Follows a drive that came back under another device name or mount point: `cfg` is updated
// and saved (throws ErroreDb when saving fails), and a move is logged "archivio spostato in
// <folder>". Blocks as long as the mount (up to 3 x 25 s for SMB).
std::pair<bool, std::string> rimonta_archivio(Config& cfg, const VistaMontaggio& vista);

// Refuses a folder of an external destination that lies on the system disk, then creates the
// folder and hands it to the server's user. (true, "") or (false, the status message).
std::pair<bool, std::string> prepara_cartella(const Config& cfg);

// For tests: forgets the last failed mount.
void azzera_prontezza_per_test();

}  // namespace nvr

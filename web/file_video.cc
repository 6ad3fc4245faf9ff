#include "web/file_video.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <mutex>
#include <unordered_map>

#include "archive/elenchi.h"
#include "core/db.h"
#include "core/stato.h"

namespace nvr {

namespace {

// Enough for every segment of weeks of a few cameras; past it memory starts again from empty.
constexpr std::size_t kMassimo = 1 << 16;

struct Memoria {
  std::mutex m;
  std::string db_file;                               // guarded by m: whose rows these are
  std::uint64_t versione = 0;                        // guarded by m: the index's, when read
  std::unordered_map<std::int64_t, FileVideo> voci;  // guarded by m
};

Memoria& memoria() {
  static Memoria* m = new Memoria;  // never destroyed: handlers may run during exit
  return *m;
}

std::string db_attuale() {
  std::shared_ptr<Host> host = host_attuale();
  return host ? host->DB_FILE : std::string();
}

// Whether the rows remembered still hold, forgetting them when not. Called with m held.
bool valida(Memoria& mem, const std::string& db_file, std::uint64_t versione) {
  if (mem.db_file == db_file && mem.versione == versione) return true;
  mem.voci.clear();
  mem.db_file = db_file;
  mem.versione = versione;
  return false;
}

bool su_disco_locale(const std::string& percorso) {
  struct statfs fs {};
  if (percorso.empty() || ::statfs(percorso.c_str(), &fs) != 0) return false;
  switch (static_cast<unsigned long>(fs.f_type)) {
    case NFS_SUPER_MAGIC:
    case SMB_SUPER_MAGIC:
    case 0xFF534D42UL:  // cifs
    case 0xFE534D42UL:  // smb2
    case 0x65735546UL:  // fuse (sshfs and the like)
    case CODA_SUPER_MAGIC:
    case AFS_SUPER_MAGIC:
      return false;
    default:
      return true;
  }
}

}  // namespace

std::optional<FileVideo> file_video_ricordato(std::int64_t id) {
  const std::string db_file = db_attuale();
  const std::uint64_t versione = versione_registrazioni();
  Memoria& mem = memoria();
  std::lock_guard l(mem.m);
  if (!valida(mem, db_file, versione)) return std::nullopt;
  auto it = mem.voci.find(id);
  if (it == mem.voci.end()) return std::nullopt;
  return it->second;
}

std::optional<FileVideo> file_video(std::int64_t id) {
  if (auto noto = file_video_ricordato(id)) return noto;
  // The version is taken before the query: a change committed meanwhile makes what is read
  // here count as old, never the other way round.
  const std::string db_file = db_attuale();
  const std::uint64_t versione = versione_registrazioni();
  std::optional<std::string> file = file_registrazione(id);
  if (!file) return std::nullopt;
  FileVideo v{*file, su_disco_locale(*file)};
  Memoria& mem = memoria();
  std::lock_guard l(mem.m);
  valida(mem, db_file, versione_registrazioni());
  if (mem.versione == versione && mem.db_file == db_file) {
    if (mem.voci.size() >= kMassimo) mem.voci.clear();
    mem.voci[id] = v;
  }
  return v;
}

}  // namespace nvr

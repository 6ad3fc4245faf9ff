#include "engine/vivo.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "core/log.h"
#include "core/testi.h"
#include "engine/registratori.h"
#include "engine/vivo_ffmpeg.h"
#include "engine/vivo_foto.h"
#include "storage/comando.h"

namespace nvr {

namespace {

std::mutex _lock_vivo;
std::map<CamId, std::shared_ptr<SorgenteVivo>> _vivi;  // guarded by _lock_vivo
// Every source started, until it is over: a stop waits for those that are still ending.
std::vector<std::weak_ptr<SorgenteVivo>> _avviate;  // guarded by _lock_vivo

// Forgets camera `cid`'s source if it is still `s` (a newer one may have taken its place).
void togli(CamId cid, const SorgenteVivo* s) {
  std::lock_guard l(_lock_vivo);
  auto it = _vivi.find(cid);
  if (it != _vivi.end() && it->second.get() == s) _vivi.erase(it);
}

// The parent of process `pid`, from /proc; 0 when it cannot be read.
pid_t genitore(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  auto chiusa = stat.rfind(')');  // the name in brackets may hold blanks and brackets
  if (chiusa == std::string::npos) return 0;
  std::istringstream resto(stat.substr(chiusa + 1));
  std::string stato;
  long ppid = 0;
  resto >> stato >> ppid;
  return static_cast<pid_t>(ppid);
}

}  // namespace

Esito<std::unique_ptr<Spettatore>> guarda_dal_vivo(const Camera& cam) {
  if (!schema_flusso_valido(cam.url)) return Errore{0, "Indirizzo del flusso non valido"};
  // A source found ending between the look-up and the subscription is replaced by a new one.
  for (int tentativo = 0; tentativo < 3; ++tentativo) {
    std::shared_ptr<SorgenteVivo> s;
    bool nuova = false;
    {
      std::lock_guard l(_lock_vivo);
      auto it = _vivi.find(cam.id);
      if (it != _vivi.end()) {
        s = it->second;
      } else {
        if (_vivi.size() >= static_cast<std::size_t>(kMassimoVivi))
          return Errore{0, "Troppe telecamere in diretta (al massimo " +
                               std::to_string(kMassimoVivi) + "): chiudine una e riprova"};
        s = std::make_shared<SorgenteVivo>(cam.id, cam.nome,
                                           [cid = cam.id](SorgenteVivo* x) { togli(cid, x); });
        _vivi[cam.id] = s;
        std::erase_if(_avviate, [](const auto& w) { return w.expired(); });
        _avviate.push_back(s);
        nuova = true;
      }
    }
    auto spettatore = s->iscrivi();
    if (!spettatore) {
      togli(cam.id, s.get());
      continue;
    }
    if (nuova) {
      // Only an RTSP stream needs the version (for the name of its time-out option).
      int major = minuscolo(cam.url).starts_with("rtsp") ? _ffmpeg_major() : 5;
      auto avvio = s->avvia(argomenti_vivo(cam.url, major), cam.url);
      if (!avvio) return avvio.errore();
    }
    return spettatore;
  }
  return Errore{0, "Diretta non disponibile in questo momento: riprova"};
}

std::vector<StatoSorgente> vivi_in_corso() {
  std::vector<std::shared_ptr<SorgenteVivo>> copia;
  {
    std::lock_guard l(_lock_vivo);
    for (const auto& [cid, s] : _vivi) copia.push_back(s);
  }
  std::vector<StatoSorgente> fuori;
  for (const auto& s : copia) {
    StatoSorgente st = s->stato();
    if (!st.finita) fuori.push_back(std::move(st));
  }
  return fuori;
}

std::shared_ptr<SorgenteVivo> sorgente_di(CamId cid) {
  std::lock_guard l(_lock_vivo);
  auto it = _vivi.find(cid);
  return it == _vivi.end() ? nullptr : it->second;
}

void ferma_vivi(const std::string& motivo) {
  std::vector<std::shared_ptr<SorgenteVivo>> copia;
  {
    std::lock_guard l(_lock_vivo);
    for (const auto& w : _avviate)
      if (auto s = w.lock()) copia.push_back(s);
  }
  for (const auto& s : copia) s->chiudi(motivo);
  auto limite = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (const auto& s : copia) {
    double resta = std::chrono::duration<double>(limite - std::chrono::steady_clock::now()).count();
    s->attendi_fine(resta > 0 ? resta : 0);
  }
}

void _ferma_vivi_orfani() {
  if (!programma_presente("pgrep")) return;
  RisultatoComando trovati = _comando({"pgrep", "-f", kModelloVivi}, 10);
  if (trovati.codice != 0) return;
  std::vector<std::string> args = {"kill", "-KILL"};
  std::istringstream righe(trovati.out);
  for (long pid; righe >> pid;) {
    // This run's own live processes (a viewer may come before the engine's first pass) stay.
    if (pid > 0 && genitore(static_cast<pid_t>(pid)) != ::getpid())
      args.push_back(std::to_string(pid));
  }
  if (args.size() == 2) return;
  RisultatoComando r = _radice(args, 10);
  if (r.codice == 0) _log("ffmpeg della diretta rimasti da un avvio precedente: fermati");
}

void azzera_vivo_per_test() {
  ferma_vivi("azzeramento");
  {
    std::lock_guard l(_lock_vivo);
    _vivi.clear();
    _avviate.clear();
  }
  azzera_foto_per_test();
}

}  // namespace nvr

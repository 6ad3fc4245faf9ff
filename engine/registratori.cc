#include "engine/registratori.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "archive/posizione.h"
#include "core/log.h"
#include "core/tempo.h"
#include "core/testi.h"
#include "storage/cartelle_fs.h"

namespace nvr {

namespace {

// Long enough for ffmpeg to close the segment it is writing and write its index.
constexpr double kAttesaSigint = 20.0;

// Failures closer together than this belong to one series for the back-off.
constexpr double kSerieGuasti = 600.0;

std::mutex _lock;
std::map<CamId, Registratore> _processi;         // guarded by _lock
std::map<CamId, ErroreRecente> _errori_recenti;  // guarded by _lock
std::map<CamId, std::vector<double>> _avvii;     // start times of the last hour; guarded by _lock

void dimentica_avvii_vecchi(std::vector<double>& avvii, double adesso) {
  std::erase_if(avvii, [&](double t) { return t < adesso - 3600; });
}

}  // namespace

int FileLog::fd() const {
  std::lock_guard l(m_);
  return fd_;
}

void FileLog::chiudi() {
  std::lock_guard l(m_);
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

std::map<CamId, int> avvii_ultima_ora(double adesso) {
  std::lock_guard l(_lock);
  std::map<CamId, int> n;
  for (auto& [cid, avvii] : _avvii) {
    dimentica_avvii_vecchi(avvii, adesso);
    if (!avvii.empty()) n[cid] = static_cast<int>(avvii.size());
  }
  return n;
}

std::map<CamId, Registratore> registratori_in_corso() {
  std::lock_guard l(_lock);
  return _processi;
}

std::optional<Registratore> registratore_di(CamId cid) {
  std::lock_guard l(_lock);
  auto it = _processi.find(cid);
  if (it == _processi.end()) return std::nullopt;
  return it->second;
}

std::map<CamId, ErroreRecente> errori_recenti() {
  std::lock_guard l(_lock);
  return _errori_recenti;
}

void segna_errore_avvio(CamId cid, const std::string& testo) {
  double ora = _ora();
  std::lock_guard l(_lock);
  auto it = _errori_recenti.find(cid);
  int n = it == _errori_recenti.end() ? 1 : it->second.n + 1;
  _errori_recenti[cid] = ErroreRecente{n, testo, ora};
}

void conferma_motivo(CamId cid, const std::string& motivo) {
  std::lock_guard l(_lock);
  auto it = _processi.find(cid);
  if (it != _processi.end()) it->second.motivo = motivo;
}

void adotta_registratore(CamId cid, Registratore r) {
  std::lock_guard l(_lock);
  _processi[cid] = std::move(r);
}

void azzera_registratori_per_test() {
  {
    std::lock_guard l(_lock);
    _processi.clear();
    _errori_recenti.clear();
    _avvii.clear();
  }
  dimentica_versione_ffmpeg();
}

std::pair<bool, std::string> _avvia(const Config& cfg, const Camera& cam, const std::string& motivo,
                                    const std::vector<Camera>& cams) {
  std::string cart = _cartella_in_corso(cfg, cam, cams);
  auto [fatta, err] = _mkdir(cart);
  if (!fatta || !_intesta(cart))
    return {false, "Cartella " + cart + " non scrivibile: " + (err.empty() ? "permessi" : err)};
  if (!schema_flusso_valido(cam.url)) return {false, "Indirizzo del flusso non valido"};
  std::string url = minuscolo(cam.url);

  int segmento = cfg.segmento_sec != 0 ? cfg.segmento_sec : 300;
  // Only an RTSP stream needs the version (for the name of its time-out option).
  int major = url.starts_with("rtsp") ? _ffmpeg_major() : 5;
  Avvio avvio;
  avvio.argomenti = argomenti_ffmpeg(cam.url, segmento, cart, major);

  // A recorder without a log still records; the log only explains a failure. The folder is in
  // the shared temporary directory: a planted link must not make us truncate another file.
  std::shared_ptr<FileLog> log;
  int fd = ::open(_log_ffmpeg(cam.id).c_str(),
                  O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd >= 0) log = std::make_shared<FileLog>(fd);
  avvio.fd_stderr = log ? log->fd() : -1;

  auto proc = avvia_processo(avvio);
  if (!proc) {
    if (log) log->chiudi();
    return {false, "ffmpeg non parte: " + proc.errore().messaggio};
  }

  Registratore r;
  r.proc = std::move(proc).valore();
  r.log = std::move(log);
  r.da = _ora();
  r.motivo = motivo;
  r.cartella = cart;
  r.segmento = segmento;
  {
    std::lock_guard l(_lock);
    auto vecchio = _processi.find(cam.id);
    // The failures of the recorders that died just before this one go on counting, so that a
    // camera that keeps failing waits longer each time (5, 10, 15 ... s, at most 60).
    auto recente = _errori_recenti.find(cam.id);
    if (vecchio != _processi.end())
      r.errori = vecchio->second.errori;
    else if (recente != _errori_recenti.end() && r.da - recente->second.ts < kSerieGuasti)
      r.errori = recente->second.n;
    auto& avvii = _avvii[cam.id];
    dimentica_avvii_vecchi(avvii, r.da);
    avvii.push_back(r.da);
    _processi[cam.id] = std::move(r);
  }
  _log(cam.nome + ": registrazione avviata (" + motivo + ")");
  return {true, ""};
}

void _ferma(CamId cid, const std::string& perche) {
  Registratore p;
  {
    std::lock_guard l(_lock);
    auto it = _processi.find(cid);
    if (it == _processi.end()) return;
    p = std::move(it->second);
    _processi.erase(it);
  }
  if (p.proc && !p.proc->terminato()) {
    // The recorder leads its own process group: whatever it started goes with it.
    p.proc->segnala_gruppo(SIGINT);
    if (!p.proc->attendi(kAttesaSigint)) p.proc->segnala_gruppo(SIGKILL);
    // Not waited for further (a process stuck on a dead share may not die at once): the
    // Processo reaps it in the background once the last copy of the record is gone.
  }
  _chiudi_log(p);
  _log("registrazione telecamera " + std::to_string(cid) + " fermata (" +
       (perche.empty() ? "fine" : perche) + ")");
}

void _ferma_tutto(const std::string& perche) {
  std::vector<CamId> ids;
  {
    std::lock_guard l(_lock);
    for (const auto& [cid, p] : _processi) ids.push_back(cid);
  }
  for (CamId cid : ids) _ferma(cid, perche);
}

void _chiudi_log(const Registratore& p) {
  if (p.log) p.log->chiudi();
}

void _controlla_processi() {
  std::vector<std::pair<CamId, Registratore>> copia;
  {
    std::lock_guard l(_lock);
    copia.assign(_processi.begin(), _processi.end());
  }
  for (auto& [cid, p] : copia) {
    if (!p.proc || !p.proc->terminato()) continue;
    _chiudi_log(p);
    std::string err = _ultima_riga_log(cid);
    std::string testo = !err.empty() ? err
                                     : "ffmpeg terminato (codice " +
                                           std::to_string(p.proc->codice().value_or(-1)) + ")";
    {
      std::lock_guard l(_lock);
      auto it = _processi.find(cid);
      // _ferma (or a new start) got there first: it owns the record and says what happened.
      if (it == _processi.end() || it->second.proc != p.proc) continue;
      _processi.erase(it);
      // A recorder that ran for a good while before dying starts a new series of failures.
      int prima = _ora() - p.da >= kSerieGuasti ? 0 : p.errori;
      _errori_recenti[cid] = ErroreRecente{prima + 1, std::move(testo), _ora()};
    }
    _log("telecamera " + std::to_string(cid) + ": ffmpeg terminato: " + err);
  }
}

}  // namespace nvr

#include "core/stato.h"

#include <unistd.h>

#include <algorithm>

namespace nvr {

namespace {
std::mutex radice_m;
std::string radice_test;  // guarded by radice_m
}  // namespace

bool modo_valido(std::string_view modo) {
  return std::find(MODI.begin(), MODI.end(), modo) != MODI.end();
}

std::string radice_montaggi() {
  std::lock_guard l(radice_m);
  return radice_test.empty() ? std::string(RADICE_MONTAGGI) : radice_test;
}

void imposta_radice_montaggi_per_test(std::string cartella) {
  std::lock_guard l(radice_m);
  radice_test = std::move(cartella);
}

std::shared_ptr<Host> RiferimentoHost::get() const {
  std::lock_guard l(m_);
  return host_;
}

bool RiferimentoHost::imposta_se_assente(std::shared_ptr<Host> host) {
  std::lock_guard l(m_);
  if (host_) return false;
  host_ = std::move(host);
  return true;
}

void RiferimentoHost::azzera_per_test() {
  std::lock_guard l(m_);
  host_.reset();
}

int FileLog::fd() const {
  std::lock_guard l(m_);
  return fd_;
}

void FileLog::chiudi() {
  std::lock_guard l(m_);
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

Json Spazio::come_json() const {
  return Json{{"totale_gb", totale_gb}, {"libero_gb", libero_gb}, {"usato_pct", usato_pct}};
}

RiferimentoHost A;

std::recursive_mutex _lock;
std::mutex _indice_lock;
std::mutex _giro_lock;
Evento _sveglia;

std::map<CamId, Registratore> _processi;
std::map<CamId, double> _stato_eventi;
std::map<std::string, std::string> _ultimi_stati;
std::map<CamId, ErroreRecente> _errori_recenti;
std::map<CamId, std::set<std::string>> _in_corso_precedenti;
std::set<std::string> _non_spostabili;

Condiviso<Problema> _problema;
Condiviso<Installazione> _installazione;
Condiviso<FfmpegInfo> _ffmpeg_info;
Condiviso<StatoSudo> _sudo;
Condiviso<CacheSpazio> _cache_spazio;
Condiviso<CachePresente> _cache_presente;
Condiviso<std::map<std::string, MancantiCartella>> _mancanti_per_cartella;

double _ultimo_indice = 0.0;
double _ultima_pulizia = 0.0;
double _ultimo_allineamento = 0.0;
double _ultimo_profondo = 0.0;

void azzera_stato_per_test() {
  A.azzera_per_test();
  {
    std::lock_guard l(_lock);
    _processi.clear();
    _stato_eventi.clear();
    _ultimi_stati.clear();
    _errori_recenti.clear();
    _in_corso_precedenti.clear();
    _non_spostabili.clear();
  }
  _sveglia.clear();
  _problema.set({});
  _installazione.set({});
  _ffmpeg_info.set({});
  _sudo.set({});
  _cache_spazio.set({});
  _cache_presente.set({});
  _mancanti_per_cartella.set({});
  _ultimo_indice = _ultima_pulizia = _ultimo_allineamento = _ultimo_profondo = 0.0;
  imposta_radice_montaggi_per_test("");
}

}  // namespace nvr

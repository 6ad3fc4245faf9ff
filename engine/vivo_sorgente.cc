#include "engine/vivo_sorgente.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <thread>

#include "core/log.h"
#include "core/tempo.h"
#include "engine/vivo_ffmpeg.h"

namespace nvr {

namespace {

// Enough for the end of ffmpeg's last words, which explain a failure.
constexpr std::size_t kCodaErrori = 8192;
// A live process has no file to finish: a short grace before SIGKILL is enough.
constexpr double kAttesaSigint = 2.0;

double monotono() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void chiudi_fd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

// Reads what `fd` has; false at its end or on an error other than an interruption.
bool leggi_fd(int fd, std::string& dove, char* buf, std::size_t n) {
  ssize_t letti = ::read(fd, buf, n);
  if (letti > 0) {
    dove.append(buf, static_cast<std::size_t>(letti));
    return true;
  }
  return letti < 0 && (errno == EINTR || errno == EAGAIN);
}

}  // namespace

// ---- Spettatore ----

Spettatore::~Spettatore() { sorgente_->lascia(id_); }

Lettura Spettatore::prossimo(double secondi) {
  SorgenteVivo& s = *sorgente_;
  std::unique_lock l(s.m_);
  s.cv_.wait_for(l, std::chrono::duration<double>(secondi), [&] {
    auto it = s.posti_.find(id_);
    return it == s.posti_.end() || !it->second.coda.vuota() || it->second.finito;
  });
  return s.leggi_posto(id_);
}

Lettura Spettatore::prova() {
  std::lock_guard l(sorgente_->m_);
  return sorgente_->leggi_posto(id_);
}

void Spettatore::al_risveglio(std::function<void()> sveglia) {
  bool subito = false;
  {
    std::lock_guard l(sorgente_->m_);
    auto it = sorgente_->posti_.find(id_);
    if (it == sorgente_->posti_.end()) return;
    it->second.sveglia = sveglia;
    subito = !it->second.coda.vuota() || it->second.finito;
  }
  if (subito && sveglia) sveglia();
}

std::optional<InfoVideo> Spettatore::info() const {
  std::lock_guard l(sorgente_->m_);
  return sorgente_->info_;
}

CamId Spettatore::telecamera() const { return sorgente_->cam_; }

// ---- SorgenteVivo ----

SorgenteVivo::SorgenteVivo(CamId cam, std::string nome,
                           std::function<void(SorgenteVivo*)> alla_fine)
    : cam_(cam), nome_(std::move(nome)), alla_fine_(std::move(alla_fine)) {}

Esito<bool> SorgenteVivo::avvia(const std::vector<std::string>& argomenti, const std::string& url) {
  int out[2] = {-1, -1}, err[2] = {-1, -1};
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
    std::string motivo = std::string("ffmpeg non parte: ") + std::strerror(errno);
    for (int* fd : {&out[0], &out[1], &err[0], &err[1]}) chiudi_fd(*fd);
    termina(motivo);
    if (alla_fine_) alla_fine_(this);
    fatto_.set();
    return Errore{errno, motivo};
  }
  Avvio avvio;
  avvio.argomenti = argomenti;
  avvio.fd_stdout = out[1];
  avvio.fd_stderr = err[1];
  auto proc = avvia_processo(avvio);
  chiudi_fd(out[1]);
  chiudi_fd(err[1]);
  if (!proc) {
    chiudi_fd(out[0]);
    chiudi_fd(err[0]);
    std::string motivo = "ffmpeg non parte: " + proc.errore().messaggio;
    termina(motivo);
    if (alla_fine_) alla_fine_(this);
    fatto_.set();
    _log(nome_ + ": diretta non avviata (" + motivo + ")");
    return Errore{proc.errore().codice, motivo};
  }
  {
    std::lock_guard l(m_);
    proc_ = proc.valore();
    da_ = _ora();
    if (posti_.empty()) senza_spettatori_da_ = monotono();
  }
  _log(nome_ + ": diretta avviata");
  try {
    std::thread([self = shared_from_this(), fo = out[0], fe = err[0], url] {
      self->leggi_tutto(fo, fe, url);
    }).detach();
  } catch (const std::exception& e) {
    // Without its reader the process would block on a full pipe: it goes at once.
    chiudi_fd(out[0]);
    chiudi_fd(err[0]);
    proc.valore()->segnala_gruppo(SIGKILL);
    termina(std::string("diretta non avviata: ") + e.what());
    if (alla_fine_) alla_fine_(this);
    proc.valore()->attendi(5);
    fatto_.set();
    return Errore{0, std::string("diretta non avviata: ") + e.what()};
  }
  return true;
}

void SorgenteVivo::leggi_tutto(int fd_out, int fd_err, std::string url) {
  std::string motivo;
  try {
    LettoreMp4 lettore;
    std::string errori;
    std::vector<char> buf(1 << 16);
    const double inizio = monotono();
    double ultimo = inizio;  // of the last piece
    bool visti = false;      // any piece yet
    bool fine_uscita = false;
    while (motivo.empty()) {
      pollfd pf[2] = {{fd_out, POLLIN, 0}, {fd_err, POLLIN, 0}};
      int r = ::poll(pf, fd_err >= 0 ? 2 : 1, 200);
      if (r < 0 && errno != EINTR) {
        motivo = std::string("diretta interrotta: ") + std::strerror(errno);
        break;
      }
      if (r > 0 && (pf[0].revents & (POLLIN | POLLHUP | POLLERR))) {
        std::string letti;
        if (!leggi_fd(fd_out, letti, buf.data(), buf.size())) {
          fine_uscita = true;
          break;
        }
        auto pezzi = lettore.leggi(letti);
        if (!pezzi) {
          motivo = "La telecamera manda un flusso non valido: " + pezzi.errore().messaggio;
          break;
        }
        if (!pezzi.valore().empty()) {
          visti = true;
          ultimo = monotono();
          pubblica(std::move(pezzi).valore(), lettore.info());
        }
      }
      if (r > 0 && fd_err >= 0 && (pf[1].revents & (POLLIN | POLLHUP | POLLERR))) {
        if (!leggi_fd(fd_err, errori, buf.data(), buf.size())) chiudi_fd(fd_err);
        if (errori.size() > kCodaErrori) errori.erase(0, errori.size() - kCodaErrori);
      }
      const double ora = monotono();
      {
        std::lock_guard l(m_);
        if (chiudere_)
          motivo = motivo_fine_;
        else if (posti_.empty() && ora - senza_spettatori_da_ >= kAttesaSenzaSpettatori)
          motivo = "nessuno spettatore";
      }
      if (motivo.empty() && ora - ultimo > kAttesaDati)
        motivo = visti ? "La telecamera ha smesso di mandare immagini"
                       : "La telecamera non ha mandato immagini entro " +
                             std::to_string(static_cast<int>(kAttesaDati)) + " secondi";
    }
    if (fine_uscita) {
      // ffmpeg closed its output: it has ended or is ending; its last words say why.
      std::shared_ptr<Processo> proc;
      {
        std::lock_guard l(m_);
        proc = proc_;
      }
      const double limite = monotono() + 1.0;
      while (fd_err >= 0 && monotono() < limite) {
        pollfd pf{fd_err, POLLIN, 0};
        if (::poll(&pf, 1, 100) > 0 && !leggi_fd(fd_err, errori, buf.data(), buf.size()))
          chiudi_fd(fd_err);
      }
      int codice = proc && proc->attendi(1.0) ? proc->codice().value_or(-1) : -1;
      motivo = motivo_guasto(errori, codice, monotono() - ultimo, url);
      if (visti) motivo = "Diretta interrotta: " + motivo;
    }
  } catch (const std::exception& e) {
    motivo = std::string("diretta interrotta: ") + e.what();
  } catch (...) {
    motivo = "diretta interrotta: errore sconosciuto";
  }
  termina(motivo);
  if (alla_fine_) alla_fine_(this);
  // The read end goes first: a process blocked writing to the pipe dies of SIGPIPE at once.
  chiudi_fd(fd_out);
  std::shared_ptr<Processo> proc;
  {
    std::lock_guard l(m_);
    proc = proc_;
  }
  if (proc && !proc->terminato()) {
    proc->segnala_gruppo(SIGINT);
    if (!proc->attendi(kAttesaSigint)) {
      proc->segnala_gruppo(SIGKILL);
      proc->attendi(5);
    }
  }
  chiudi_fd(fd_err);
  _log(nome_ + ": diretta fermata (" + motivo + ")");
  fatto_.set();
}

void SorgenteVivo::pubblica(std::vector<PezzoMp4> pezzi, const std::optional<InfoVideo>& info) {
  std::vector<std::function<void()>> chi;
  {
    std::lock_guard l(m_);
    if (info && !info_) info_ = info;
    for (PezzoMp4& p : pezzi) {
      auto blocco = std::make_shared<const std::string>(std::move(p.dati));
      if (p.tipo == PezzoMp4::Tipo::inizializzazione) {
        memoria_.inizializzazione(blocco);
        for (auto& [id, posto] : posti_)
          if (!posto.finito) posto.coda.accoda_init(blocco);
        continue;
      }
      FrammentoVivo f{blocco, p.chiave};
      memoria_.aggiungi(f);
      ++frammenti_;
      for (auto& [id, posto] : posti_) {
        if (posto.finito || posto.coda.accoda(f)) continue;
        posto.finito = true;
        posto.motivo = "Connessione troppo lenta: la diretta non arriva in tempo";
      }
    }
    for (auto& [id, posto] : posti_)
      if (posto.sveglia) chi.push_back(posto.sveglia);
  }
  cv_.notify_all();
  sveglia(chi);
}

void SorgenteVivo::termina(const std::string& motivo) {
  std::vector<std::function<void()>> chi;
  {
    std::lock_guard l(m_);
    if (finita_) return;
    finita_ = true;
    motivo_fine_ = motivo;
    for (auto& [id, posto] : posti_) {
      if (!posto.finito) {
        posto.finito = true;
        posto.motivo = motivo;
      }
      if (posto.sveglia) chi.push_back(posto.sveglia);
    }
  }
  cv_.notify_all();
  sveglia(chi);
}

void SorgenteVivo::sveglia(std::vector<std::function<void()>>& chi) {
  for (auto& f : chi) {
    try {
      f();
    } catch (...) {
      // A server's callback must not end the source's thread.
    }
  }
}

std::unique_ptr<Spettatore> SorgenteVivo::iscrivi() {
  std::lock_guard l(m_);
  if (finita_ || chiudere_) return nullptr;
  const int id = prossimo_id_++;
  Posto& posto = posti_[id];
  if (memoria_.init()) {
    posto.coda.accoda_init(memoria_.init());
    for (const FrammentoVivo& f : memoria_.da_ultima_chiave()) posto.coda.accoda(f);
  }
  senza_spettatori_da_ = 0.0;
  return std::make_unique<Spettatore>(shared_from_this(), id);
}

void SorgenteVivo::lascia(int id) {
  std::lock_guard l(m_);
  posti_.erase(id);
  if (posti_.empty()) senza_spettatori_da_ = monotono();
}

Lettura SorgenteVivo::leggi_posto(int id) {
  Lettura fuori;
  auto it = posti_.find(id);
  if (it == posti_.end()) {
    fuori.stato = Lettura::Stato::finito;
    fuori.motivo = "spettatore uscito";
  } else if (!it->second.coda.vuota()) {
    fuori.stato = Lettura::Stato::dati;
    fuori.dati = it->second.coda.prendi();
  } else if (it->second.finito) {
    fuori.stato = Lettura::Stato::finito;
    fuori.motivo = it->second.motivo;
  }
  return fuori;
}

void SorgenteVivo::chiudi(const std::string& motivo) {
  std::lock_guard l(m_);
  if (finita_ || chiudere_) return;
  chiudere_ = true;
  motivo_fine_ = motivo;
}

bool SorgenteVivo::attendi_fine(double secondi) { return fatto_.wait(secondi); }

std::optional<std::string> SorgenteVivo::ultima_immagine() const {
  std::lock_guard l(m_);
  auto frammenti = memoria_.da_ultima_chiave();
  if (!memoria_.init() || frammenti.empty()) return std::nullopt;
  return *memoria_.init() + *frammenti.front().dati;
}

StatoSorgente SorgenteVivo::stato() const {
  std::lock_guard l(m_);
  StatoSorgente s;
  s.cam = cam_;
  s.pid = proc_ && !finita_ ? proc_->pid() : 0;
  s.spettatori = static_cast<int>(posti_.size());
  s.da = da_;
  s.byte_memoria = memoria_.byte();
  s.frammenti = frammenti_;
  s.info = info_;
  s.finita = finita_;
  return s;
}

}  // namespace nvr

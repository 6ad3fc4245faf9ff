#include "tests/reliability/impianto.h"

#include <signal.h>

#include <filesystem>

#include "core/db.h"
#include "testing/processi.h"

namespace nvr::affidabilita {

namespace fs = std::filesystem;

Impianto::Impianto(std::string dati) : dati_(std::move(dati)) {
  if (dati_.empty()) {
    temporanea_ = std::make_unique<testing::CartellaTemporanea>();
    dati_ = *temporanea_ / "dati";
  }
}

Impianto::~Impianto() {
  if (in_esecuzione()) ferma();
  programma_.reset();
  camera_.reset();
}

std::string Impianto::avvia_telecamera() {
  std::string motivo;
  camera_ = testing::CameraRtsp::avvia(&motivo);
  return camera_ ? "" : "telecamera di prova non disponibile: " + motivo;
}

void Impianto::archivia_log() {
  if (!programma_) return;
  log_passati_ += programma_->uscita() + programma_->errori();
  programma_.reset();
}

bool Impianto::avvia(std::vector<std::string> altro, std::string* perche) {
  archivia_log();
  altro.push_back("--nuova-password");
  programma_ = prova::Programma::su(dati_, altro);
  if (!programma_->pronto()) {
    if (perche) *perche = programma_->uscita() + programma_->errori();
    return false;
  }
  password_.push_back(programma_->password());
  if (!programma_->accedi()) {
    if (perche) *perche = "accesso rifiutato: " + programma_->uscita();
    return false;
  }
  return true;
}

std::int64_t Impianto::aggiungi_camera(const std::string& nome, const std::string& url) {
  auto r = programma_->post("/api/telecamere",
                            {{"nome", nome}, {"url", url.empty() ? camera_->url() : url}});
  if (r.status != 200) return 0;
  const std::int64_t id = r.json.value("id", std::int64_t{0});
  auto c = programma_->post("/api/nvr/camera", {{"id", id}, {"attiva", true}, {"modo", "sempre"}});
  return c.status == 200 ? id : 0;
}

::testing::AssertionResult Impianto::registra_fino_a(const std::string& nome, int righe,
                                                     std::int64_t* cam, int segmento) {
  std::string perche;
  if (!avvia({}, &perche)) return ::testing::AssertionFailure() << "non parte: " << perche;
  *cam = aggiungi_camera(nome);
  if (*cam == 0) return ::testing::AssertionFailure() << "telecamera non aggiunta";
  if (registra(true) != 200) return ::testing::AssertionFailure() << "registrazione non accesa";
  segmenti_di(segmento);
  if (!prova::attendi([&] { return righe_indicizzate() >= righe; }, 90))
    return ::testing::AssertionFailure() << "meno di " << righe << " righe indicizzate\n"
                                         << tutto_il_log();
  return ::testing::AssertionSuccess();
}

void Impianto::segmenti_di(int secondi) {
  Connessione c(db_file());
  c.esegui("UPDATE nvr_config SET segmento_sec=?", {std::int64_t{secondi}});
  c.commit();
}

int Impianto::registra(bool si) {
  return programma_->post("/api/nvr/config", {{"attivo", si ? 1 : 0}}).status;
}

void Impianto::uccidi() {
  if (!in_esecuzione()) return;
  programma_->segnala(SIGKILL);
  programma_->fine(10);
}

std::optional<int> Impianto::ferma(double secondi) {
  if (!in_esecuzione()) return std::nullopt;
  programma_->segnala(SIGTERM);
  return programma_->fine(secondi);
}

bool Impianto::in_esecuzione() const {
  return programma_ && programma_->pid() > 0 && testing::stato_processo(programma_->pid()) &&
         *testing::stato_processo(programma_->pid()) != 'Z';
}

std::string Impianto::tutto_il_log() const {
  return log_passati_ + (programma_ ? programma_->uscita() + programma_->errori() : "");
}

int Impianto::righe_indicizzate() const {
  Connessione c(db_file());
  return static_cast<int>(come_intero(c.righe("SELECT COUNT(*) FROM nvr_registrazioni")[0][0]));
}

std::vector<pid_t> registratori_in(const std::string& cartella) {
  std::vector<pid_t> trovati;
  std::error_code ec;
  for (const auto& voce : fs::directory_iterator("/proc", ec)) {
    const std::string nome = voce.path().filename();
    if (nome.find_first_not_of("0123456789") != std::string::npos) continue;
    const pid_t pid = std::stoi(nome);
    const auto riga = testing::riga_di_comando(pid);
    if (riga.empty() || fs::path(riga[0]).filename() != "ffmpeg") continue;
    for (const auto& a : riga)
      if (a.rfind(cartella, 0) == 0) {
        trovati.push_back(pid);
        break;
      }
  }
  return trovati;
}

}  // namespace nvr::affidabilita

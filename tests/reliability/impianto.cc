#include "tests/reliability/impianto.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "core/processo.h"
#include "storage/comando.h"
#include "testing/processi.h"

namespace nvr::affidabilita {

namespace fs = std::filesystem;

int Integrita::buchi_oltre(double secondi) const {
  return static_cast<int>(std::count_if(
      buchi.begin(), buchi.end(), [&](const auto& b) { return b.second - b.first > secondi; }));
}

bool Integrita::coerente() const {
  return senza_riga.empty() && senza_file.empty() && doppi.empty() && illeggibili.empty();
}

std::string Integrita::descrizione() const {
  std::ostringstream s;
  s << file << " file finiti, " << righe << " righe, " << in_corso.size() << " in corso\n";
  for (const auto& [titolo, v] : {std::pair{"senza riga", &senza_riga},
                                  {"senza file", &senza_file},
                                  {"doppi", &doppi},
                                  {"illeggibili", &illeggibili}})
    for (const auto& f : *v) s << titolo << ": " << f << "\n";
  for (const auto& [da, a] : buchi)
    s << "buco di " << std::fixed << a - da << " s da " << da << "\n";
  return s.str();
}

Integrita verifica_integrita(const std::string& db_file, const std::string& archivio,
                             bool ffprobe) {
  Integrita esito;
  std::map<std::string, int> indicizzati;
  std::map<std::int64_t, std::vector<std::pair<double, double>>> per_camera;
  for (const auto& r : Connessione(db_file).righe("SELECT cam_id, inizio, fine, file FROM "
                                                  "nvr_registrazioni")) {
    ++esito.righe;
    ++indicizzati[fs::path(come_testo(r[3])).lexically_normal().string()];
    per_camera[come_intero(r[0])].emplace_back(come_reale(r[1]), come_reale(r[2]));
  }
  std::set<std::string> su_disco;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(archivio, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (!it->is_regular_file() || it->path().extension() != ".mp4") continue;
    const std::string p = it->path().lexically_normal().string();
    if (it->path().parent_path().filename() == "in_corso") {
      esito.in_corso.push_back(p);
      continue;
    }
    su_disco.insert(p);
    ++esito.file;
    if (!indicizzati.count(p)) esito.senza_riga.push_back(p);
    if (!ffprobe) continue;
    auto r = _comando(
        {"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", p}, 30);
    if (r.codice != 0 || std::atof(r.out.c_str()) <= 0) esito.illeggibili.push_back(p);
  }
  for (const auto& [f, n] : indicizzati) {
    if (!su_disco.count(f)) esito.senza_file.push_back(f);
    if (n > 1) esito.doppi.push_back(f);
  }
  for (auto& [cam, tratti] : per_camera) {
    std::sort(tratti.begin(), tratti.end());
    for (std::size_t i = 1; i < tratti.size(); ++i)
      if (tratti[i].first - tratti[i - 1].second > 1.0)
        esito.buchi.emplace_back(tratti[i - 1].second, tratti[i].first);
  }
  return esito;
}

double adesso() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::int64_t scalare(const std::string& db_file, const std::string& sql,
                     const std::vector<Valore>& parametri) {
  auto r = Connessione(db_file).righe(sql, parametri);
  return r.empty() || r[0].empty() ? 0 : come_intero(r[0][0]);
}

Impianto::~Impianto() {
  if (in_esecuzione()) ferma();
}

std::string Impianto::avvia_telecamera() {
  if (!programma_presente("ffmpeg")) return "ffmpeg non installato";
  std::string motivo;
  camera_ = testing::CameraRtsp::avvia(&motivo);
  return camera_ ? "" : "telecamera di prova non disponibile: " + motivo;
}

::testing::AssertionResult Impianto::avvia(std::vector<std::string> altro) {
  if (programma_) log_passati_ += programma_->uscita() + programma_->errori();
  programma_.reset();
  altro.push_back("--nuova-password");
  programma_ = prova::Programma::su(dati_, altro);
  std::string errore;
  if (!programma_->pronto())
    errore = programma_->uscita() + programma_->errori();
  else if (password_ = programma_->password(); !programma_->accedi())
    errore = "accesso rifiutato: " + programma_->uscita();
  if (errore.empty()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "il programma non parte: " << errore;
}

::testing::AssertionResult Impianto::registra(int righe, const std::string& impostazioni,
                                              const std::vector<Valore>& parametri) {
  auto r = programma_->post("/api/telecamere", {{"nome", "Ingresso"}, {"url", camera_->url()}});
  cam_ = r.status == 200 ? r.json.value("id", std::int64_t{0}) : 0;
  sql("UPDATE nvr_config SET attivo=1, " + impostazioni, parametri);
  // Switching the camera on runs a pass at once: the recorder starts with these settings.
  r = programma_->post("/api/nvr/camera", {{"id", cam_}, {"attiva", true}, {"modo", "sempre"}});
  if (cam_ == 0 || r.status != 200)
    return ::testing::AssertionFailure() << "telecamera rifiutata: " << r.corpo;
  if (!attendi([&] { return righe_indicizzate() >= righe; }, 90))
    return ::testing::AssertionFailure() << "meno di " << righe << " righe\n" << tutto_il_log();
  return ::testing::AssertionSuccess();
}

void Impianto::sql(const std::string& sql, const std::vector<Valore>& parametri) const {
  Connessione c(db_file());
  c.esegui(sql, parametri);
  c.commit();
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

::testing::AssertionResult Impianto::ferma_e_verifica(double buco, std::string archivio,
                                                      bool ffprobe) {
  if (auto codice = ferma(); codice != 0)
    return ::testing::AssertionFailure() << "uscita " << codice.value_or(-999) << "\n"
                                         << tutto_il_log();
  auto esito =
      verifica_integrita(db_file(), archivio.empty() ? this->archivio() : archivio, ffprobe);
  if (esito.coerente() && esito.buchi_oltre(buco) == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "buchi oltre " << buco << " s o archivio incoerente\n"
                                       << esito.descrizione();
}

bool Impianto::in_esecuzione() const {
  if (!programma_ || programma_->pid() <= 0) return false;
  auto stato = testing::stato_processo(programma_->pid());
  return stato && *stato != 'Z';
}

std::string Impianto::tutto_il_log() const {
  return log_passati_ + (programma_ ? programma_->uscita() + programma_->errori() : "");
}

int Impianto::righe_indicizzate() const {
  return static_cast<int>(scalare(db_file(), "SELECT COUNT(*) FROM nvr_registrazioni"));
}

std::vector<pid_t> registratori_in(const std::string& cartella) {
  std::vector<pid_t> trovati;
  std::error_code ec;
  for (const auto& voce : fs::directory_iterator("/proc", ec)) {
    const std::string nome = voce.path().filename();
    if (nome.find_first_not_of("0123456789") != std::string::npos) continue;
    const auto riga = testing::riga_di_comando(std::stoi(nome));
    if (riga.empty() || fs::path(riga[0]).filename() != "ffmpeg") continue;
    if (std::any_of(riga.begin(), riga.end(),
                    [&](const auto& a) { return a.starts_with(cartella); }))
      trovati.push_back(std::stoi(nome));
  }
  return trovati;
}

}  // namespace nvr::affidabilita

#include "testing/ambiente.h"

#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "core/db.h"
#include "core/stato.h"
#include "testing/azzera.h"

namespace nvr::testing {

namespace fs = std::filesystem;

CartellaTemporanea::CartellaTemporanea() {
  char modello[] = "/tmp/nvr_prova_XXXXXX";
  if (!::mkdtemp(modello)) throw std::runtime_error("mkdtemp non riuscito");
  percorso_ = modello;
}

CartellaTemporanea::~CartellaTemporanea() {
  std::error_code ec;
  fs::remove_all(percorso_, ec);
}

struct HostDiProva::Condiviso {
  std::mutex m;
  std::optional<std::string> zona;
};

HostDiProva::HostDiProva(Aggancia aggancia) : dati_(std::make_shared<Condiviso>()) {
  azzera_stato_per_test();
  db_file = cartella / "host.db";
  sql("CREATE TABLE tapo_cameras (id INTEGER PRIMARY KEY, name TEXT, rtsp_url TEXT)");
  host = std::make_shared<Host>();
  host->DB_FILE = db_file;
  auto dati = dati_;
  host->_zn_fuso = [dati]() -> std::optional<std::string> {
    std::lock_guard l(dati->m);
    return dati->zona;
  };
  host->get_all_internal_states = [] { return Json::object(); };
  if (aggancia == Aggancia::kSi) A.imposta_se_assente(host);
}

HostDiProva::~HostDiProva() { azzera_stato_per_test(); }

void HostDiProva::aggiungi_camera(long long id, const std::string& nome, const std::string& url) {
  Connessione c(db_file);
  c.esegui("INSERT INTO tapo_cameras (id, name, rtsp_url) VALUES (?,?,?)",
           {std::int64_t{id}, nome, url});
  c.commit();
}

void HostDiProva::imposta_zona(std::optional<std::string> nome) {
  std::lock_guard l(dati_->m);
  dati_->zona = std::move(nome);
}

void HostDiProva::sql(const std::string& istruzioni) {
  sqlite3* db = nullptr;
  sqlite3_open(db_file.c_str(), &db);
  // As a host's own connection would: wait for the recorder's writers (the overview's summaries
  // are built in the background right after attaching) instead of failing at once.
  sqlite3_busy_timeout(db, 5000);
  char* errore = nullptr;
  int r = sqlite3_exec(db, istruzioni.c_str(), nullptr, nullptr, &errore);
  std::string msg = errore ? errore : "";
  sqlite3_free(errore);
  sqlite3_close(db);
  if (r != SQLITE_OK) throw std::runtime_error("sql di prova: " + msg);
}

void scrivi_file(const std::string& percorso, const std::string& contenuto) {
  fs::create_directories(fs::path(percorso).parent_path());
  std::ofstream f(percorso, std::ios::binary);
  f << contenuto;
}

std::string leggi_file(const std::string& percorso) {
  std::ifstream f(percorso, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

}  // namespace nvr::testing

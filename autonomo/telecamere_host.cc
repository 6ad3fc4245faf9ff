#include "autonomo/telecamere_host.h"

#include <cctype>

#include "core/db.h"

namespace nvr::autonomo {

namespace {

std::string pulito(const std::string& s) {
  const auto primo = s.find_first_not_of(" \t\r\n");
  if (primo == std::string::npos) return "";
  return s.substr(primo, s.find_last_not_of(" \t\r\n") - primo + 1);
}

std::optional<Errore> controlla(const std::optional<std::string>& nome,
                                const std::optional<std::string>& url) {
  if (nome && pulito(*nome).empty()) return Errore{400, "Il nome della telecamera e' obbligatorio"};
  if (url) {
    std::string minuscolo;
    for (char c : pulito(*url))
      minuscolo += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    bool valido = false;
    for (const char* schema : {"rtsp://", "rtsps://", "http://", "https://"})
      valido |= minuscolo.starts_with(schema);
    if (!valido) return Errore{400, "Indirizzo del flusso non valido"};
  }
  return std::nullopt;
}

}  // namespace

void crea_tabella_telecamere(const std::string& db_file) {
  Connessione c(db_file);
  c.esegui(
      "CREATE TABLE IF NOT EXISTS tapo_cameras (id INTEGER PRIMARY KEY, name TEXT, rtsp_url TEXT)");
  c.commit();
}

std::vector<TelecameraHost> elenco_telecamere(const std::string& db_file) {
  Connessione c(db_file);
  std::vector<TelecameraHost> elenco;
  for (const Riga& r : c.righe("SELECT id, name, rtsp_url FROM tapo_cameras ORDER BY id"))
    elenco.push_back({come_intero(r[0]), come_testo(r[1]), come_testo(r[2])});
  return elenco;
}

Esito<std::int64_t> aggiungi_telecamera(const std::string& db_file, const std::string& nome,
                                        const std::string& url) {
  if (auto e = controlla(nome, url)) return *e;
  Connessione c(db_file);
  c.esegui("INSERT INTO tapo_cameras (name, rtsp_url) VALUES (?, ?)", {pulito(nome), pulito(url)});
  const auto id = come_intero(c.righe("SELECT last_insert_rowid()")[0][0]);
  c.commit();
  return id;
}

Esito<bool> modifica_telecamera(const std::string& db_file, std::int64_t id,
                                const std::optional<std::string>& nome,
                                const std::optional<std::string>& url) {
  if (auto e = controlla(nome, url)) return *e;
  Connessione c(db_file);
  if (c.righe("SELECT id FROM tapo_cameras WHERE id=?", {id}).empty())
    return Errore{404, "Telecamera non trovata"};
  if (nome) c.esegui("UPDATE tapo_cameras SET name=? WHERE id=?", {pulito(*nome), id});
  if (url) c.esegui("UPDATE tapo_cameras SET rtsp_url=? WHERE id=?", {pulito(*url), id});
  c.commit();
  return true;
}

Esito<bool> elimina_telecamera(const std::string& db_file, std::int64_t id) {
  Connessione c(db_file);
  c.esegui("DELETE FROM tapo_cameras WHERE id=?", {id});
  const bool tolta = c.cambiate() > 0;
  c.commit();
  if (!tolta) return Errore{404, "Telecamera non trovata"};
  return true;
}

}  // namespace nvr::autonomo

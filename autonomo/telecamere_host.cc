#include "autonomo/telecamere_host.h"

#include "core/db.h"
#include "core/testi.h"

namespace nvr::autonomo {

namespace {

std::optional<Errore> controlla(const std::optional<std::string>& nome,
                                const std::optional<std::string>& url) {
  if (nome && spoglia_spazi_e_righe(*nome).empty())
    return Errore{400, "Il nome della telecamera e' obbligatorio"};
  if (url && !schema_flusso_valido(spoglia_spazi_e_righe(*url)))
    return Errore{400, "Indirizzo del flusso non valido"};
  return std::nullopt;
}

}  // namespace

void crea_tabella_telecamere(const std::string& db_file) {
  Connessione c(db_file);
  c.esegui(
      "CREATE TABLE IF NOT EXISTS tapo_cameras (id INTEGER PRIMARY KEY, name TEXT, rtsp_url TEXT)");
  bool ha_vivo = false;
  for (const Riga& r : c.righe("PRAGMA table_info(tapo_cameras)"))
    ha_vivo = ha_vivo || come_testo(r[1]) == "url_vivo";
  if (!ha_vivo) c.esegui("ALTER TABLE tapo_cameras ADD COLUMN url_vivo TEXT");
  c.commit();
}

std::vector<TelecameraHost> elenco_telecamere(const std::string& db_file) {
  Connessione c(db_file);
  std::vector<TelecameraHost> elenco;
  for (const Riga& r : c.righe("SELECT id, name, rtsp_url, url_vivo FROM tapo_cameras ORDER BY id"))
    elenco.push_back({come_intero(r[0]), come_testo(r[1]), come_testo(r[2]),
                      valore_vuoto(r[3]) ? "" : come_testo(r[3])});
  return elenco;
}

Esito<std::int64_t> aggiungi_telecamera(const std::string& db_file, const std::string& nome,
                                        const std::string& url) {
  if (auto e = controlla(nome, url)) return *e;
  Connessione c(db_file);
  c.esegui("INSERT INTO tapo_cameras (name, rtsp_url) VALUES (?, ?)",
           {spoglia_spazi_e_righe(nome), spoglia_spazi_e_righe(url)});
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
  if (nome)
    c.esegui("UPDATE tapo_cameras SET name=? WHERE id=?", {spoglia_spazi_e_righe(*nome), id});
  if (url)
    c.esegui("UPDATE tapo_cameras SET rtsp_url=? WHERE id=?", {spoglia_spazi_e_righe(*url), id});
  c.commit();
  return true;
}

Esito<bool> imposta_url_vivo(const std::string& db_file, std::int64_t id,
                             const std::string& url_vivo) {
  const std::string url = spoglia_spazi_e_righe(url_vivo);
  if (!url.empty())
    if (auto e = controlla(std::nullopt, url)) return *e;
  Connessione c(db_file);
  c.esegui("UPDATE tapo_cameras SET url_vivo=? WHERE id=?", {url, id});
  const bool trovata = c.cambiate() > 0;
  c.commit();
  if (!trovata) return Errore{404, "Telecamera non trovata"};
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

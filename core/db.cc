#include "core/db.h"

#include <sqlite3.h>

#include <atomic>
#include <charconv>
#include <cmath>
#include <cstring>

#include "core/schema_sommari.h"
#include "core/stato.h"

namespace nvr {

bool nullo(const Valore& v) { return std::holds_alternative<std::monostate>(v); }

std::int64_t come_intero(const Valore& v, std::int64_t altrimenti) {
  if (auto* i = std::get_if<std::int64_t>(&v)) return *i;
  if (auto* d = std::get_if<double>(&v)) {
    if (std::isfinite(*d) && std::fabs(*d) < 9.2e18) return static_cast<std::int64_t>(*d);
    return altrimenti;
  }
  if (auto* s = std::get_if<std::string>(&v)) {
    std::int64_t n = 0;
    auto [p, ec] = std::from_chars(s->data(), s->data() + s->size(), n);
    if (ec == std::errc() && p == s->data() + s->size()) return n;
  }
  return altrimenti;
}

double come_reale(const Valore& v, double altrimenti) {
  if (auto* i = std::get_if<std::int64_t>(&v)) return static_cast<double>(*i);
  if (auto* d = std::get_if<double>(&v)) return *d;
  if (auto* s = std::get_if<std::string>(&v)) {
    try {
      std::size_t letti = 0;
      double d = std::stod(*s, &letti);
      if (letti == s->size()) return d;
    } catch (...) {
    }
  }
  return altrimenti;
}

std::string come_testo(const Valore& v) {
  if (auto* s = std::get_if<std::string>(&v)) return *s;
  if (auto* i = std::get_if<std::int64_t>(&v)) return std::to_string(*i);
  if (auto* d = std::get_if<double>(&v)) return Json(*d).dump();
  return "";
}

bool valore_vuoto(const Valore& v) {
  if (nullo(v)) return true;
  if (auto* i = std::get_if<std::int64_t>(&v)) return *i == 0;
  if (auto* d = std::get_if<double>(&v)) return *d == 0.0;
  return std::get<std::string>(v).empty();
}

namespace {

// Finalises a prepared statement on every path.
struct Istruzione {
  sqlite3_stmt* st;
  ~Istruzione() { sqlite3_finalize(st); }
};

Valore colonna(sqlite3_stmt* st, int i) {
  switch (sqlite3_column_type(st, i)) {
    case SQLITE_INTEGER:
      return static_cast<std::int64_t>(sqlite3_column_int64(st, i));
    case SQLITE_FLOAT:
      return sqlite3_column_double(st, i);
    case SQLITE_NULL:
      return std::monostate{};
    default: {
      auto* p = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
      return std::string(p ? p : "", static_cast<std::size_t>(sqlite3_column_bytes(st, i)));
    }
  }
}

std::atomic<std::uint64_t> versione_indice{0};

// Notes a deletion or a change of an index row; the version moves only at commit, so that
// whoever reads the index between the change and the commit still sees what is committed.
void su_modifica(void* cls, int operazione, const char*, const char* tabella, sqlite3_int64) {
  if (operazione != SQLITE_INSERT && std::strcmp(tabella, "nvr_registrazioni") == 0)
    *static_cast<bool*>(cls) = true;
}

}  // namespace

std::uint64_t versione_registrazioni() { return versione_indice.load(); }

Connessione::Connessione(const std::string& file) {
  int r =
      sqlite3_open_v2(file.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (r != SQLITE_OK) {
    std::string msg = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(r);
    sqlite3_close(db_);
    db_ = nullptr;
    throw ErroreDb(msg);
  }
  sqlite3_busy_timeout(db_, 15000);
  sqlite3_update_hook(db_, su_modifica, &registrazioni_toccate_);
}

Connessione::~Connessione() {
  if (!db_) return;
  if (!sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close_v2(db_);
}

void Connessione::fallisci(const std::string& dove) {
  std::string msg = sqlite3_errmsg(db_);
  throw ErroreDb(dove.empty() ? msg : msg + " (" + dove + ")");
}

sqlite3_stmt* Connessione::prepara(std::string_view sql, const std::vector<Valore>& parametri) {
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &st, nullptr) != SQLITE_OK)
    fallisci(std::string(sql));
  try {
    lega(st, sql, parametri);
  } catch (...) {
    sqlite3_finalize(st);
    throw;
  }
  return st;
}

void Connessione::lega(sqlite3_stmt* st, std::string_view sql,
                       const std::vector<Valore>& parametri) {
  sqlite3_reset(st);
  sqlite3_clear_bindings(st);
  if (static_cast<int>(parametri.size()) != sqlite3_bind_parameter_count(st))
    throw ErroreDb("numero di parametri errato (" + std::string(sql) + ")");
  for (std::size_t i = 0; i < parametri.size(); ++i) {
    int n = static_cast<int>(i + 1);
    const Valore& v = parametri[i];
    int r = SQLITE_OK;
    if (auto* x = std::get_if<std::int64_t>(&v))
      r = sqlite3_bind_int64(st, n, *x);
    else if (auto* d = std::get_if<double>(&v))
      r = sqlite3_bind_double(st, n, *d);
    else if (auto* s = std::get_if<std::string>(&v))
      r = sqlite3_bind_text(st, n, s->data(), static_cast<int>(s->size()), SQLITE_TRANSIENT);
    else
      r = sqlite3_bind_null(st, n);
    if (r != SQLITE_OK) fallisci("");
  }
}

void Connessione::passo_scrittura(sqlite3_stmt* st) {
  // Like a scripting driver: a writing statement outside a transaction opens one.
  if (!sqlite3_stmt_readonly(st) && sqlite3_get_autocommit(db_)) {
    if (sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) fallisci("BEGIN");
  }
  int r;
  while ((r = sqlite3_step(st)) == SQLITE_ROW) {
  }
  if (r != SQLITE_DONE) fallisci(sqlite3_sql(st));
}

void Connessione::esegui(std::string_view sql, const std::vector<Valore>& parametri) {
  Istruzione i{prepara(sql, parametri)};
  passo_scrittura(i.st);
}

void Connessione::esegui_molti(std::string_view sql,
                               const std::vector<std::vector<Valore>>& lotti) {
  // One compiled statement for the whole batch: compiling it again for every row costs more
  // than the insert itself.
  if (lotti.empty()) return;
  Istruzione i{prepara(sql, lotti.front())};
  passo_scrittura(i.st);
  for (std::size_t k = 1; k < lotti.size(); ++k) {
    lega(i.st, sql, lotti[k]);
    passo_scrittura(i.st);
  }
}

std::vector<Riga> Connessione::righe(std::string_view sql, const std::vector<Valore>& parametri) {
  std::vector<Riga> tutte;
  scorri(sql, parametri, [&](const Riga& r) { tutte.push_back(r); });
  return tutte;
}

void Connessione::scorri(std::string_view sql, const std::vector<Valore>& parametri,
                         const std::function<void(const Riga&)>& f) {
  Istruzione i{prepara(sql, parametri)};
  int colonne = sqlite3_column_count(i.st);
  Riga riga(static_cast<std::size_t>(colonne));
  int r;
  while ((r = sqlite3_step(i.st)) == SQLITE_ROW) {
    for (int c = 0; c < colonne; ++c) riga[static_cast<std::size_t>(c)] = colonna(i.st, c);
    f(riga);
  }
  if (r != SQLITE_DONE) fallisci(std::string(sql));
}

void Connessione::commit() {
  if (sqlite3_get_autocommit(db_)) return;
  if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) fallisci("COMMIT");
  if (registrazioni_toccate_) ++versione_indice;
  registrazioni_toccate_ = false;
}

std::int64_t Connessione::cambiate() const { return sqlite3_changes64(db_); }

Connessione _db() {
  std::shared_ptr<Host> host = host_attuale();
  if (!host) throw ErroreDb("registratore non collegato a un'applicazione");
  return Connessione(host->DB_FILE);
}

namespace {

// The status page needs each camera's count and total size; over millions of rows an aggregate
// would read them all at every poll. The totals live in their own table, kept in step by
// triggers, so that every writer (the index, reconciliation, retention, deletion, and the host
// itself) keeps them exact without knowing of them. Only integer camera ids are counted: they
// are the only ones a query by camera id can match.
// Beside them, two facts that let the day listing and the newest end be found from the
// (cam_id, inizio) index alone, without an index of their own (every extra index makes each
// scattered deletion touch all of its pages):
//  - durata_max: no row of the camera has a larger fine - inizio; raised on insert and update,
//    never lowered (an upper bound is all the readers need); NULL while no row has one.
//  - fine_non_numeriche: rows whose fine is text or a blob, which sort after every number and
//    so escape that bound; kept exact, readers fall back to a plain scan while it is not zero.
constexpr const char* kDurata = "(NEW.fine - NEW.inizio)";

std::string alza_durata() {
  return std::string("durata_max = CASE WHEN ") + kDurata + " IS NULL OR durata_max >= " + kDurata +
         " THEN durata_max ELSE " + kDurata + " END";
}

constexpr const char* kFineNuova = "(typeof(NEW.fine) IN ('text', 'blob'))";
constexpr const char* kFineVecchia = "(typeof(OLD.fine) IN ('text', 'blob'))";

bool ha_colonna(Connessione& c, const char* tabella, const char* colonna) {
  return !c.righe("SELECT 1 FROM pragma_table_info(?) WHERE name=?",
                  {std::string(tabella), std::string(colonna)})
              .empty();
}

bool ha_indice(Connessione& c, const char* nome) {
  return !c.righe("SELECT 1 FROM sqlite_master WHERE type='index' AND name=?", {std::string(nome)})
              .empty();
}

void crea_totali(Connessione& c) {
  const bool nuova =
      c.righe("SELECT 1 FROM sqlite_master WHERE type='table' AND name='nvr_reg_totali'").empty();
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_reg_totali (cam_id INTEGER PRIMARY KEY, n INTEGER NOT NULL, "
      "byte INTEGER NOT NULL, durata_max REAL, fine_non_numeriche INTEGER NOT NULL DEFAULT 0)");
  if (!nuova && !ha_colonna(c, "nvr_reg_totali", "durata_max")) {
    // Totals from before the bound: the columns are added and filled once, the triggers that
    // did not know of them are replaced below. While the old (cam_id, fine - inizio) and
    // (cam_id, fine) indexes still exist each camera costs one seek; else one scan.
    c.esegui("ALTER TABLE nvr_reg_totali ADD COLUMN durata_max REAL");
    c.esegui("ALTER TABLE nvr_reg_totali ADD COLUMN fine_non_numeriche INTEGER NOT NULL DEFAULT 0");
    for (const char* t : {"nvr_reg_totali_ins", "nvr_reg_totali_del", "nvr_reg_totali_upd"})
      c.esegui(std::string("DROP TRIGGER IF EXISTS ") + t);
    c.esegui(
        "UPDATE nvr_reg_totali SET durata_max = (SELECT MAX(fine - inizio) FROM "
        "nvr_registrazioni r WHERE r.cam_id = nvr_reg_totali.cam_id)");
    c.esegui(
        std::string("UPDATE nvr_reg_totali SET fine_non_numeriche = (SELECT COUNT(*) FROM "
                    "nvr_registrazioni r WHERE r.cam_id = nvr_reg_totali.cam_id AND ") +
        (ha_indice(c, "nvr_reg_cam_fine") ? "r.fine >= ''" : "typeof(r.fine) IN ('text', 'blob')") +
        ")");
  }
  c.esegui(std::string("CREATE TRIGGER IF NOT EXISTS nvr_reg_totali_ins AFTER INSERT ON "
                       "nvr_registrazioni WHEN typeof(NEW.cam_id) = 'integer' BEGIN "
                       "INSERT OR IGNORE INTO nvr_reg_totali (cam_id, n, byte) VALUES (NEW.cam_id, "
                       "0, 0); UPDATE nvr_reg_totali SET n = n + 1, byte = byte + "
                       "COALESCE(NEW.dimensione, 0), ") +
           alza_durata() + ", fine_non_numeriche = fine_non_numeriche + " + kFineNuova +
           " WHERE cam_id = NEW.cam_id; END");
  c.esegui(std::string("CREATE TRIGGER IF NOT EXISTS nvr_reg_totali_del AFTER DELETE ON "
                       "nvr_registrazioni WHEN typeof(OLD.cam_id) = 'integer' BEGIN "
                       "UPDATE nvr_reg_totali SET n = n - 1, byte = byte - "
                       "COALESCE(OLD.dimensione, 0), fine_non_numeriche = fine_non_numeriche - ") +
           kFineVecchia + " WHERE cam_id = OLD.cam_id; END");
  c.esegui(std::string("CREATE TRIGGER IF NOT EXISTS nvr_reg_totali_upd AFTER UPDATE OF cam_id, "
                       "dimensione, inizio, fine ON nvr_registrazioni BEGIN "
                       "UPDATE nvr_reg_totali SET n = n - 1, byte = byte - "
                       "COALESCE(OLD.dimensione, 0), fine_non_numeriche = fine_non_numeriche - ") +
           kFineVecchia +
           " WHERE cam_id = OLD.cam_id AND typeof(OLD.cam_id) = 'integer'; "
           "INSERT OR IGNORE INTO nvr_reg_totali (cam_id, n, byte) SELECT NEW.cam_id, 0, 0 "
           "WHERE typeof(NEW.cam_id) = 'integer'; "
           "UPDATE nvr_reg_totali SET n = n + 1, byte = byte + COALESCE(NEW.dimensione, 0), " +
           alza_durata() + ", fine_non_numeriche = fine_non_numeriche + " + kFineNuova +
           " WHERE cam_id = NEW.cam_id AND typeof(NEW.cam_id) = 'integer'; END");
  // Rows indexed before the totals existed are counted once, in the same transaction.
  if (nuova)
    c.esegui(
        "INSERT INTO nvr_reg_totali (cam_id, n, byte, durata_max, fine_non_numeriche) SELECT "
        "cam_id, COUNT(*), COALESCE(SUM(dimensione), 0), MAX(fine - inizio), "
        "SUM(typeof(fine) IN ('text', 'blob')) FROM nvr_registrazioni WHERE "
        "typeof(cam_id) = 'integer' GROUP BY cam_id");
}

constexpr const char* kIndiciSuperati[] = {"nvr_reg_cam_durata", "nvr_reg_cam_fine",
                                            "nvr_reg_cam_inizio_fine"};

}  // namespace

void togli_indici_superati() {
  Connessione c = _db();
  bool tolti = false;
  for (const char* i : kIndiciSuperati) {
    if (!ha_indice(c, i)) continue;
    c.esegui(std::string("DROP INDEX IF EXISTS ") + i);
    tolti = true;
  }
  if (tolti) c.commit();
}

void _init_db() {
  Connessione c = _db();
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_config ("
      "id INTEGER PRIMARY KEY CHECK (id = 1), "
      "attivo INTEGER DEFAULT 0, "
      "cartella TEXT DEFAULT '', "
      "destinazione TEXT DEFAULT '{}', "
      "segmento_sec INTEGER DEFAULT 300, "
      "giorni INTEGER DEFAULT 14, "
      "spazio_min_gb REAL DEFAULT 2.0)");
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_camere ("
      "cam_id INTEGER PRIMARY KEY, "
      "attiva INTEGER DEFAULT 0, "
      "modo TEXT DEFAULT 'sempre', "
      "orari TEXT DEFAULT '[]', "
      "eventi TEXT DEFAULT '[]', "
      "post_roll INTEGER DEFAULT 30)");
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_registrazioni ("
      "id INTEGER PRIMARY KEY AUTOINCREMENT, "
      "cam_id INTEGER, "
      "inizio REAL, "
      "fine REAL, "
      "file TEXT UNIQUE, "
      "dimensione INTEGER DEFAULT 0, "
      "motivo TEXT DEFAULT '')");
  c.esegui("CREATE INDEX IF NOT EXISTS nvr_reg_cam_inizio ON nvr_registrazioni (cam_id, inizio)");
  crea_totali(c);
  crea_schema_sommari(c);
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_eventi ("
      "id INTEGER PRIMARY KEY AUTOINCREMENT, "
      "cam_id INTEGER, "
      "ts REAL, "
      "entity_id TEXT, "
      "stato TEXT)");
  c.esegui("CREATE INDEX IF NOT EXISTS nvr_ev_cam_ts ON nvr_eventi (cam_id, ts)");
  c.esegui("INSERT OR IGNORE INTO nvr_config (id) VALUES (1)");
  c.commit();
}

}  // namespace nvr

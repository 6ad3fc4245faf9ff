// SQLite access: one short-lived connection per operation, and the recorder's schema.
//
// A connection behaves like the usual database driver of a scripting host: a statement that
// writes opens a transaction by itself, nothing is saved until commit(), and closing (the
// destructor) rolls back whatever was not committed. Failures throw ErroreDb, which the caller's
// thread boundary (engine pass, HTTP handler) turns into a log line or an error answer.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace nvr {

class ErroreDb : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using Valore = std::variant<std::monostate, std::int64_t, double, std::string>;
using Riga = std::vector<Valore>;

// Readings of a column value that never throw.
bool nullo(const Valore& v);
std::int64_t come_intero(const Valore& v, std::int64_t altrimenti = 0);  // reals truncated
double come_reale(const Valore& v, double altrimenti = 0.0);
std::string come_testo(const Valore& v);  // null -> "", numbers in decimal
// "Value or default": null, 0, 0.0 and "" count as empty.
bool valore_vuoto(const Valore& v);

class Connessione {
 public:
  // Opens `file` (created when missing) with a 15-second busy time-out: a writer that finds
  // the database locked waits up to 15 s before failing.
  explicit Connessione(const std::string& file);
  ~Connessione();
  Connessione(const Connessione&) = delete;
  Connessione& operator=(const Connessione&) = delete;

  // Runs one statement with "?" parameters; writing statements join the open transaction.
  void esegui(std::string_view sql, const std::vector<Valore>& parametri = {});
  // Runs the statement once per parameter list, inside one transaction.
  void esegui_molti(std::string_view sql, const std::vector<std::vector<Valore>>& lotti);
  // All rows of a query, columns in the order of the query.
  std::vector<Riga> righe(std::string_view sql, const std::vector<Valore>& parametri = {});
  // Streams the rows of a query to `f` without keeping them.
  void scorri(std::string_view sql, const std::vector<Valore>& parametri,
              const std::function<void(const Riga&)>& f);
  // Commits; a commit that deleted or changed rows of nvr_registrazioni advances
  // versione_registrazioni() once it is done.
  void commit();
  // Rows changed by the last writing statement.
  std::int64_t cambiate() const;

 private:
  sqlite3_stmt* prepara(std::string_view sql, const std::vector<Valore>& parametri);
  // Binds `parametri` to a compiled statement, after resetting it for another run.
  void lega(sqlite3_stmt* st, std::string_view sql, const std::vector<Valore>& parametri);
  void passo_scrittura(sqlite3_stmt* st);
  [[noreturn]] void fallisci(const std::string& dove);

  sqlite3* db_ = nullptr;
  bool registrazioni_toccate_ = false;  // a row of nvr_registrazioni deleted or changed since
                                        // the last commit
};

// Grows after every commit, through a Connessione of this process, that deleted or changed
// rows of nvr_registrazioni (inserts leave it alone). What is remembered from the index under
// one value stays true until it grows. Writers outside this process are not seen. Never blocks.
std::uint64_t versione_registrazioni();

// A new connection to the host's DB_FILE. Throws ErroreDb when the recorder is not attached.
Connessione _db();

// Creates the recorder's tables, indexes and the configuration row when missing; an existing
// table is left exactly as it is. Throws ErroreDb on failure (the connection is closed first).
void _init_db();

// Drops the indexes older versions kept on nvr_registrazioni beside (cam_id, inizio): the totals
// answer what they were for, and each one made every scattered deletion write all of its pages.
// On a large index the drop holds the write lock for seconds, so it is no part of _init_db: the
// host's start runs it once, in the background. Does nothing when none is left.
void togli_indici_superati();

}  // namespace nvr

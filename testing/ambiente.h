// Shared test fixtures: temporary folders and a host attached to a real SQLite file.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "core/host.h"
#include "core/json.h"

namespace nvr::testing {

// A fresh folder under /tmp, removed with everything in it at destruction.
class CartellaTemporanea {
 public:
  CartellaTemporanea();
  ~CartellaTemporanea();
  CartellaTemporanea(const CartellaTemporanea&) = delete;
  CartellaTemporanea& operator=(const CartellaTemporanea&) = delete;
  const std::string& percorso() const { return percorso_; }
  std::string operator/(const std::string& nome) const { return percorso_ + "/" + nome; }

 private:
  std::string percorso_;
};

// A host as an application would attach it: a database file holding the host's camera table,
// a settable zone and no entity states. The constructor resets the recorder's module state
// and, unless told otherwise, attaches this host as A (without routes or engine); the destructor
// resets the module state again.
class HostDiProva {
 public:
  enum class Aggancia { kSi, kNo };
  explicit HostDiProva(Aggancia aggancia = Aggancia::kSi);
  ~HostDiProva();

  std::shared_ptr<Host> host;
  CartellaTemporanea cartella;
  std::string db_file;

  void aggiungi_camera(long long id, const std::string& nome, const std::string& url);
  // The zone name the host publishes; nothing for no zone at all.
  void imposta_zona(std::optional<std::string> nome);
  // Runs SQL directly on the database file (for arranging and inspecting tests).
  void sql(const std::string& istruzioni);

 private:
  struct Condiviso;
  std::shared_ptr<Condiviso> dati_;
};

// Writes a file with `contenuto`; creates the parent folders.
void scrivi_file(const std::string& percorso, const std::string& contenuto);
std::string leggi_file(const std::string& percorso);

}  // namespace nvr::testing

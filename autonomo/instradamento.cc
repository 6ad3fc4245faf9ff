#include "autonomo/instradamento.h"

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "core/log.h"

namespace nvr::autonomo {

std::string valore_cookie(const std::string& intestazione, const std::string& nome) {
  std::size_t i = 0;
  while (i < intestazione.size()) {
    std::size_t fine = intestazione.find(';', i);
    if (fine == std::string::npos) fine = intestazione.size();
    std::string coppia = intestazione.substr(i, fine - i);
    const auto primo = coppia.find_first_not_of(' ');
    coppia = primo == std::string::npos ? "" : coppia.substr(primo);
    const auto uguale = coppia.find('=');
    if (uguale != std::string::npos && coppia.compare(0, uguale, nome) == 0 &&
        uguale == nome.size())
      return coppia.substr(uguale + 1);
    i = fine + 1;
  }
  return "";
}

void Instradatore::add_url_rule(const std::string& percorso, const std::string& endpoint,
                                Vista vista, const std::vector<std::string>& metodi) {
  std::lock_guard l(m_);
  for (const auto& r : regole_)
    if (r.endpoint == endpoint) throw std::runtime_error("endpoint gia' registrato: " + endpoint);
  regole_.push_back({percorso, endpoint, std::move(vista), metodi, nullptr});
}

void Instradatore::aggiungi_scorciatoia(const std::string& endpoint, VistaSubito vista) {
  std::lock_guard l(m_);
  for (auto& r : regole_)
    if (r.endpoint == endpoint) {
      r.subito = std::move(vista);
      return;
    }
  throw std::runtime_error("endpoint sconosciuto: " + endpoint);
}

std::optional<Risposta> Instradatore::instrada_subito(const std::string& percorso,
                                                      Richiesta r) const {
  const std::string metodo = r.metodo == "HEAD" ? "GET" : r.metodo;
  VistaSubito subito;
  {
    std::lock_guard l(m_);
    for (const auto& regola : regole_) {
      std::optional<std::int64_t> rid;
      if (!corrisponde_rotta(regola.percorso, percorso, rid)) continue;
      // The rule instrada() would pick: the first whose path and method match.
      if (std::find(regola.metodi.begin(), regola.metodi.end(), metodo) == regola.metodi.end())
        continue;
      subito = regola.subito;
      r.rid = rid;
      break;
    }
  }
  if (!subito) return std::nullopt;
  return subito(r);
}

Risposta Instradatore::instrada(const std::string& percorso, Richiesta r) const {
  const std::string metodo = r.metodo == "HEAD" ? "GET" : r.metodo;
  Vista vista;
  bool percorso_noto = false;
  {
    std::lock_guard l(m_);
    for (const auto& regola : regole_) {
      std::optional<std::int64_t> rid;
      if (!corrisponde_rotta(regola.percorso, percorso, rid)) continue;
      percorso_noto = true;
      for (const auto& m : regola.metodi)
        if (m == metodo) {
          vista = regola.vista;
          r.rid = rid;
        }
      if (vista) break;
    }
  }
  if (!vista)
    return percorso_noto ? errore_json("Metodo non permesso", 405)
                         : errore_json("Risorsa non trovata", 404);
  // The recorder lets database and bad-number errors reach the host, as a web framework's error
  // page would catch them; here they become an answer and a log line, never a dead worker.
  try {
    return vista(r);
  } catch (const std::exception& e) {
    _log("errore nella richiesta " + r.metodo + " " + percorso + ": " + e.what());
    return errore_json(std::string("Errore interno del server: ") + e.what(), 500);
  } catch (...) {
    _log("errore nella richiesta " + r.metodo + " " + percorso);
    return errore_json("Errore interno del server", 500);
  }
}

}  // namespace nvr::autonomo

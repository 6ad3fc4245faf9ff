// The values that cross between a host's web server and the recorder's handlers. No web
// library type appears here: each host turns its own request into a Richiesta and sends the
// Risposta back in its own way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/json.h"

namespace nvr {

struct Richiesta {
  std::string metodo;                          // "GET", "POST", "DELETE"
  std::optional<std::int64_t> rid;             // the integer path parameter, when the route has one
  std::map<std::string, std::string> query;    // query parameters, decoded; first value wins
  Json corpo = Json::object();                 // the JSON body; an empty object when missing or bad
  std::map<std::string, std::string> intestazioni;  // header names in lower case

  // The query parameter `nome`, or "" when absent.
  std::string parametro(const std::string& nome) const;
};

// A file to send as the answer, with byte ranges and validators handled by the host.
struct FileDaInviare {
  std::string percorso;
  std::string tipo = "video/mp4";
  bool allegato = false;       // "Content-Disposition: attachment" instead of inline
  std::string nome_download;   // the file name offered to the browser
};

// A body made while it is being sent (a live camera, a recorded span). The host pulls it without
// blocking and sends it chunked, or with Content-Length when the body knows its length;
// dropping the last reference ends it on the maker's side.
class Flusso {
 public:
  enum class Lettura { kDati, kVuoto, kFine };
  virtual ~Flusso() = default;
  // Never blocks. kDati: `n` (> 0) bytes were copied into `dove` (at most `max`). kVuoto:
  // nothing now; `sveglia` will be called once, from any thread, when there is something to
  // read or the body has ended. kFine: the body is over (for good).
  virtual Lettura leggi(char* dove, std::size_t max, std::size_t& n,
                        std::function<void()> sveglia) = 0;
  // The Content-Type of the body.
  virtual std::string tipo() const = 0;
  // The body's whole length in bytes when known before the first byte; leggi() then delivers
  // exactly that many before kFine, or ends early only when its source fails.
  virtual std::optional<std::uint64_t> lunghezza() const { return std::nullopt; }
};

// For hosts with a thread per answer: waits up to `secondi` for something to read. Same
// results as Flusso::leggi, kVuoto meaning that the time ran out.
Flusso::Lettura leggi_attendendo(Flusso& flusso, char* dove, std::size_t max, std::size_t& n,
                                 double secondi);

struct Risposta {
  int status = 200;
  Json corpo = Json::object();           // the JSON object of the body (unused for a file)
  std::optional<FileDaInviare> file;     // when set, the body is this file
  std::shared_ptr<Flusso> flusso;        // when set (and no file), the body is this stream
  std::vector<std::pair<std::string, std::string>> intestazioni;  // extra headers
};

// How every host turns its raw request into a Richiesta.

// Whether `percorso` matches the route `regola`; one "<int:rid>" segment of the route (the last
// or not) takes a non-negative integer of at most 18 digits and nothing else, and fills `rid`.
bool corrisponde_rotta(const std::string& regola, const std::string& percorso,
                       std::optional<std::int64_t>& rid);

// A request body read leniently: the JSON object it holds, or an empty object when it is
// missing, malformed or not an object.
Json corpo_da_testo(const std::string& testo);

// A header name as the handlers look it up: in lower case.
std::string nome_intestazione(std::string nome);

// The one place where a handler's JSON answer is built.
Risposta _json(Json corpo, int status = 200);

// The error answer of every handler: {"status": "error", "message": messaggio}.
Risposta errore_json(const std::string& messaggio, int status);

}  // namespace nvr

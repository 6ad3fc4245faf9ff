// The host's Flask application as the recorder sees it.
//
// Each route becomes a Flask view wrapped by the host module's own guards,
// login_required(admin_required(view)), so that the host decides who gets through exactly as for
// its own pages. The view turns flask.request into a Richiesta, runs the recorder's handler with
// the GIL released, and answers through flask.jsonify or, for a file, flask.send_file.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <string>
#include <vector>

#include "core/host.h"

namespace nvr::python {

// The host's objects, kept for the whole life of the process: the engine thread may read them
// until the very end, and dropping their references once the interpreter is gone would crash.
// Allocated once per collega call and never freed.
struct ModuloOspite {
  pybind11::object modulo;  // the host module passed to collega
  pybind11::object app;     // its Flask application
};

class AppFlask : public AppWeb {
 public:
  explicit AppFlask(const ModuloOspite* ospite) : ospite_(ospite) {}

  // app.add_url_rule(percorso, endpoint, login_required(admin_required(view)), methods=metodi),
  // the guards being looked up on the host module now. `vista` is the recorder's handler:
  // the C++ guards of the Host are transparent, the real ones are the host's. "<int:rid>" is
  // Flask's own converter. Takes the GIL; the host's Python errors (a missing guard, an endpoint
  // registered twice) come through unchanged as pybind11::error_already_set.
  void add_url_rule(const std::string& percorso, const std::string& endpoint, Vista vista,
                    const std::vector<std::string>& metodi) override;

 private:
  const ModuloOspite* ospite_;
};

// A streamed answer as a Python iterator of bytes, for flask.Response: each next() waits (GIL
// released) for the next piece; StopIteration at the end. Dropping it ends the stream.
struct PezziDiFlusso {
  std::shared_ptr<Flusso> flusso;
  pybind11::bytes prossimo();
};

// The Flask module, imported when the extension loads (its import failing fails the load).
void imposta_flask(pybind11::object flask);

// The view Flask calls for one route (GIL held, inside a request): keyword argument `rid` for
// "<int:rid>". An exception of the handler becomes a RuntimeError, so the host's error handling
// answers it (a 500 for Flask's default).
pybind11::object chiama_vista(const Vista& vista, const pybind11::kwargs& argomenti);

}  // namespace nvr::python

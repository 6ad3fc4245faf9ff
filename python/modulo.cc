// The extension module `nvr` for Flask hosts: `import nvr`, then `nvr.collega(module)`.
#include <pybind11/pybind11.h>

#include "core/stato.h"
#include "python/app_flask.h"
#include "python/host_python.h"
#include "web/api_anteprima.h"
#include "web/api_riproduzione.h"
#include "web/api_vivo.h"
#include "web/collega.h"

namespace py = pybind11;

PYBIND11_MODULE(nvr, m) {
  m.doc() = "Videoregistratore di rete per applicazioni Flask.";
  // Without Flask there is nothing to attach to: the import itself fails (ImportError).
  nvr::python::imposta_flask(py::module_::import("flask"));

  m.def(
      "collega",
      [](py::object modulo_app) {
        // Once attached, a later module is not even read: it may lack what the first one had.
        if (nvr::host_attuale()) return false;
        std::shared_ptr<nvr::Host> host = nvr::python::host_da_modulo(modulo_app);
        // Attaching creates the tables; the callbacks into the host take the GIL themselves.
        py::gil_scoped_release senza_gil;
        return nvr::collega(std::move(host));
      },
      py::arg("modulo_app"),
      "Collega il registratore al modulo dell'applicazione Flask: True la prima volta, False "
      "se era gia' collegato. RuntimeError se il modulo non ha un oggetto app.");

  py::class_<nvr::python::PezziDiFlusso>(m, "PezziDiFlusso")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", &nvr::python::PezziDiFlusso::prossimo);

  m.def(
      "collega_vivo",
      [](py::object modulo_app) {
        if (!nvr::host_attuale()) throw std::runtime_error("Chiama prima nvr.collega(modulo)");
        std::shared_ptr<nvr::Host> host = nvr::python::host_da_modulo(modulo_app);
        nvr::registra_rotte_vivo(*host->app, {}, {}, nvr::telecamera_registrata);
      },
      py::arg("modulo_app"),
      "Aggiunge all'app Flask la visione dal vivo (/api/vivo/...), dietro le guardie del "
      "modulo. Facoltativa; da chiamare dopo collega.");

  m.def(
      "collega_riproduzione",
      [](py::object modulo_app) {
        if (!nvr::host_attuale()) throw std::runtime_error("Chiama prima nvr.collega(modulo)");
        std::shared_ptr<nvr::Host> host = nvr::python::host_da_modulo(modulo_app);
        nvr::registra_rotte_riproduzione(*host->app, {}, {});
        nvr::registra_rotte_anteprima(*host->app, {}, {});
      },
      py::arg("modulo_app"),
      "Aggiunge all'app Flask la riproduzione delle registrazioni come un'unica linea del tempo "
      "(/api/flusso, /api/esporta, /api/esporta/impronta) e le sue anteprime (/api/anteprima), "
      "dietro le guardie del modulo. Facoltativa; da chiamare dopo collega.");
}

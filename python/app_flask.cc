#include "python/app_flask.h"

#include <cctype>
#include <optional>
#include <stdexcept>
#include <string>

#include "core/richiesta.h"
#include "python/conversione.h"
#include "python/interprete.h"

namespace py = pybind11;

namespace nvr::python {

namespace {

py::object* flask_ = nullptr;  // set once at load, never released (see ModuloOspite)

py::object flask() {
  if (!flask_) throw std::logic_error("modulo flask non caricato");
  return *flask_;
}

std::string testo(py::handle v) { return da_python(py::str(v)).get<std::string>(); }

Richiesta richiesta_da_flask(const py::kwargs& argomenti) {
  py::object req = flask().attr("request");
  Richiesta r;
  r.metodo = testo(req.attr("method"));
  if (argomenti.contains("rid")) {
    int troppo = 0;
    long long rid = PyLong_AsLongLongAndOverflow(py::object(argomenti["rid"]).ptr(), &troppo);
    if (rid == -1 && PyErr_Occurred()) throw py::error_already_set();
    // An id beyond 64 bits names no recording: the handler answers 404 for an absent id.
    if (troppo == 0) r.rid = rid;
  }
  py::object args = req.attr("args");
  for (py::handle nome : args) r.query.emplace(testo(nome), testo(args[nome]));  // first value
  // Read the body ourselves rather than with get_json: a missing, mistyped or malformed body is
  // an empty object for every handler, never a 400 from the framework.
  std::string corpo = py::bytes(req.attr("get_data")());
  r.corpo = corpo_da_testo(corpo);
  for (py::handle coppia : req.attr("headers").attr("items")()) {
    auto t = py::reinterpret_borrow<py::tuple>(coppia);
    r.intestazioni.emplace(nome_intestazione(testo(t[0])), testo(t[1]));
  }
  return r;
}

py::object percorso_python(const std::string& percorso) {
  PyObject* o =
      PyUnicode_DecodeFSDefaultAndSize(percorso.data(), static_cast<Py_ssize_t>(percorso.size()));
  if (!o) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(o);
}

py::object risposta_flask(const Risposta& r) {
  py::object f = flask();
  py::object risposta;
  if (r.flusso && !r.file) {
    // Sent as it comes; the server's worker waits for each piece with the GIL released.
    risposta = f.attr("Response")(py::cast(PezziDiFlusso{r.flusso}), py::arg("status") = r.status,
                                  py::arg("mimetype") = r.flusso->tipo(),
                                  py::arg("direct_passthrough") = true);
    risposta.attr("headers").attr("__setitem__")("Cache-Control", "no-store");
    if (auto lunghezza = r.flusso->lunghezza())
      risposta.attr("headers").attr("__setitem__")("Content-Length", std::to_string(*lunghezza));
  } else if (r.file) {
    // The framework answers byte ranges (206) and validators (304) itself.
    risposta = f.attr("send_file")(
        percorso_python(r.file->percorso), py::arg("mimetype") = r.file->tipo,
        py::arg("conditional") = true, py::arg("as_attachment") = r.file->allegato,
        py::arg("download_name") = r.file->nome_download);
  } else {
    risposta = f.attr("jsonify")(in_python(r.corpo));
    risposta.attr("status_code") = r.status;
  }
  py::object intestazioni = risposta.attr("headers");
  for (const auto& [nome, valore] : r.intestazioni) intestazioni.attr("__setitem__")(nome, valore);
  return risposta;
}

}  // namespace

py::bytes PezziDiFlusso::prossimo() {
  std::string pezzo(64 * 1024, '\0');
  std::size_t n = 0;
  Flusso::Lettura l = Flusso::Lettura::kVuoto;
  {
    py::gil_scoped_release senza_gil;
    while (l == Flusso::Lettura::kVuoto)
      l = leggi_attendendo(*flusso, pezzo.data(), pezzo.size(), n, 1.0);
  }
  if (l == Flusso::Lettura::kFine) throw py::stop_iteration();
  return py::bytes(pezzo.data(), n);
}

void imposta_flask(py::object flask) { flask_ = new py::object(std::move(flask)); }

py::object chiama_vista(const Vista& vista, const py::kwargs& argomenti) {
  Richiesta richiesta = richiesta_da_flask(argomenti);
  Risposta risposta;
  std::optional<std::string> errore;
  {
    // The handler reads the database and the disk; other requests and the engine go on meanwhile.
    py::gil_scoped_release senza_gil;
    try {
      risposta = vista(richiesta);
    } catch (const std::exception& e) {
      errore = e.what();
    } catch (...) {
      errore = "errore sconosciuto";
    }
  }
  if (errore) throw std::runtime_error(*errore);
  return risposta_flask(risposta);
}

void AppFlask::add_url_rule(const std::string& percorso, const std::string& endpoint, Vista vista,
                            const std::vector<std::string>& metodi) {
  con_gil_dell_ospite([&] {
    py::cpp_function vista_python(
        [vista = std::move(vista)](py::kwargs argomenti) { return chiama_vista(vista, argomenti); },
        py::name(endpoint.c_str()));
    py::object modulo = ospite_->modulo;
    py::object protetta =
        modulo.attr("login_required")(modulo.attr("admin_required")(vista_python));
    py::list lista;
    for (const std::string& m : metodi) lista.append(m);
    ospite_->app.attr("add_url_rule")(percorso, endpoint, protetta, py::arg("methods") = lista);
  });
}

}  // namespace nvr::python

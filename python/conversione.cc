#include "python/conversione.h"

#include <string>

namespace py = pybind11;

namespace nvr::python {

namespace {

constexpr int kProfonditaMassima = 64;

py::str testo_python(const std::string& s) {
  PyObject* o = PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "replace");
  if (!o) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(o);
}

std::string testo_cpp(py::handle s) {
  // "surrogatepass" and the like would give invalid UTF-8; replace instead.
  PyObject* b = PyUnicode_AsEncodedString(s.ptr(), "utf-8", "replace");
  if (!b) throw py::error_already_set();
  auto byte = py::reinterpret_steal<py::bytes>(b);
  return std::string(byte);
}

Json da_python_a(py::handle v, int profondita) {
  PyObject* o = v.ptr();
  if (o == Py_None) return nullptr;
  if (PyBool_Check(o)) return o == Py_True;
  if (profondita > kProfonditaMassima) return testo_cpp(py::str(v));
  if (PyLong_Check(o)) {
    int troppo = 0;
    long long n = PyLong_AsLongLongAndOverflow(o, &troppo);
    if (troppo == 0 && !(n == -1 && PyErr_Occurred())) return n;
    PyErr_Clear();
    return testo_cpp(py::str(v));
  }
  if (PyFloat_Check(o)) return PyFloat_AsDouble(o);
  if (PyUnicode_Check(o)) return testo_cpp(v);
  if (PyList_Check(o) || PyTuple_Check(o)) {
    Json lista = Json::array();
    for (py::handle x : v) lista.push_back(da_python_a(x, profondita + 1));
    return lista;
  }
  if (PyDict_Check(o)) {
    Json oggetto = Json::object();
    for (auto [k, x] : py::reinterpret_borrow<py::dict>(v))
      oggetto[testo_cpp(py::str(k))] = da_python_a(x, profondita + 1);
    return oggetto;
  }
  if (PyMapping_Check(o) && py::hasattr(v, "items")) {
    Json oggetto = Json::object();
    for (py::handle coppia : v.attr("items")()) {
      auto t = py::reinterpret_borrow<py::tuple>(coppia);
      oggetto[testo_cpp(py::str(t[0]))] = da_python_a(t[1], profondita + 1);
    }
    return oggetto;
  }
  return testo_cpp(py::str(v));
}

}  // namespace

py::object in_python(const Json& v) {
  switch (v.type()) {
    case Json::value_t::null:
      return py::none();
    case Json::value_t::boolean:
      return py::bool_(v.get<bool>());
    case Json::value_t::number_integer:
      return py::int_(v.get<std::int64_t>());
    case Json::value_t::number_unsigned:
      return py::int_(v.get<std::uint64_t>());
    case Json::value_t::number_float:
      return py::float_(v.get<double>());
    case Json::value_t::string:
      return testo_python(v.get_ref<const std::string&>());
    case Json::value_t::array: {
      py::list lista;
      for (const Json& x : v) lista.append(in_python(x));
      return lista;
    }
    case Json::value_t::object: {
      py::dict oggetto;
      for (auto it = v.begin(); it != v.end(); ++it)
        oggetto[testo_python(it.key())] = in_python(it.value());
      return oggetto;
    }
    default:
      return py::none();  // binary values and discarded parses never reach an answer
  }
}

Json da_python(py::handle v) { return da_python_a(v, 0); }

}  // namespace nvr::python

#include "python/host_python.h"

#include <chrono>
#include <future>
#include <thread>

#include "core/stato.h"
#include "engine/motore.h"
#include "python/app_flask.h"
#include "python/conversione.h"
#include "python/interprete.h"
#include "web/collega.h"

namespace py = pybind11;

namespace nvr::python {

namespace {

using namespace std::chrono_literals;

// How long the exit hook waits for the calls into the interpreter already under way.
constexpr auto kAttesaChiamate = 10s;
// How long stopping waits for the engine's current pass to end.
constexpr auto kAttesaGiro = 15s;

// Ends the engine thread before the process does. After the exit hooks the C runtime destroys
// the recorder's static state (the engine's wake-up event, the recorder table) while a daemon
// thread still waiting on it would block the exit or crash it; and a pass after the recorders
// stopped would start a recorder that the ending process leaves behind. A pass that hangs (a
// dead share) is not waited for beyond `attesa`.
void ferma_motore(std::chrono::milliseconds attesa) {
  arresta_motore();
  auto finito = std::make_shared<std::promise<void>>();
  std::future<void> atteso = finito->get_future();
  std::thread([finito] {
    attendi_fine_motore();
    finito->set_value();
  }).detach();
  atteso.wait_for(attesa);
}

// While the recorders stop no engine pass may start: it would see a camera without its recorder
// (the record leaves the table before the process is waited for) and start a new one right away.
// A pass that hangs (a dead share) is not waited for beyond the limit, and the recorders are
// stopped all the same.
void senza_eccezioni(const std::function<void()>& azione) {
  try {
    azione();
  } catch (...) {
    // Stopping is best effort on the way out; the recorders log their own failures.
  }
}

void registra_uscita(std::function<void()> azione) {
  con_gil_dell_ospite([&] {
    py::cpp_function all_uscita(
        [azione = std::move(azione)] {
          chiudi_interprete(kAttesaChiamate);
          py::gil_scoped_release senza_gil;
          ferma_motore(kAttesaGiro);
          senza_eccezioni(azione);
        },
        py::name("nvr_all_uscita"));
    py::module_::import("atexit").attr("register")(all_uscita);
  });
}

bool e_un_gestore(const py::object& prec, const py::module_& signal) {
  if (prec.is_none() || !PyCallable_Check(prec.ptr())) return false;
  return !prec.equal(signal.attr("SIG_DFL")) && !prec.equal(signal.attr("SIG_IGN"));
}

void installa_sigterm(std::function<void()> gestore) {
  con_gil_dell_ospite([&] {
    py::module_ signal = py::module_::import("signal");
    py::object sigterm = signal.attr("SIGTERM");
    py::object prec = signal.attr("getsignal")(sigterm);
    py::cpp_function su_sigterm(
        [gestore = std::move(gestore), prec, signal](py::object numero,
                                                     py::object frame) -> py::object {
          {
            py::gil_scoped_release senza_gil;
            auto fermo = blocca_giri(std::chrono::duration<double>(kAttesaGiro).count());
            senza_eccezioni(gestore);
          }
          if (e_un_gestore(prec, signal)) return prec(numero, frame);
          py::module_::import("sys").attr("exit")(0);
          return py::none();
        },
        py::name("nvr_su_sigterm"));
    // Raises ValueError off the main thread; collega then attaches without a handler.
    signal.attr("signal")(sigterm, su_sigterm);
  });
}

}  // namespace

std::optional<std::string> nome_zona(py::handle tz) {
  if (tz.is_none()) return std::nullopt;
  py::object nome;
  if (py::isinstance<py::str>(tz)) {
    nome = py::reinterpret_borrow<py::object>(tz);
  } else if (py::hasattr(tz, "key") && py::isinstance<py::str>(tz.attr("key"))) {
    nome = tz.attr("key");  // zoneinfo.ZoneInfo
  } else if (py::hasattr(tz, "zone") && py::isinstance<py::str>(tz.attr("zone"))) {
    nome = tz.attr("zone");  // pytz
  } else {
    nome = py::str(tz);
  }
  std::string testo = da_python(nome).get<std::string>();
  if (testo.empty()) return std::nullopt;
  return testo;
}

std::shared_ptr<Host> host_da_modulo(py::handle modulo) {
  auto host = std::make_shared<Host>();
  py::object app = py::getattr(modulo, "app", py::none());
  if (app.is_none()) return host;

  const auto* ospite = new ModuloOspite{py::reinterpret_borrow<py::object>(modulo), app};
  host->app = std::make_shared<AppFlask>(ospite);
  Guardia trasparente = [](Vista v) { return v; };
  if (py::hasattr(modulo, "login_required")) host->login_required = trasparente;
  if (py::hasattr(modulo, "admin_required")) host->admin_required = trasparente;
  host->DB_FILE =
      py::module_::import("os").attr("fspath")(modulo.attr("DB_FILE")).cast<std::string>();

  host->_zn_fuso = [ospite]() {
    return con_gil([&]() -> std::optional<std::string> {
      py::object fuso = py::getattr(ospite->modulo, "_zn_fuso", py::none());
      if (!py::bool_(fuso) || !py::hasattr(fuso, "get")) return std::nullopt;
      return nome_zona(fuso.attr("get")("tz"));
    });
  };
  host->get_all_internal_states = [ospite]() {
    return con_gil([&] { return da_python(ospite->modulo.attr("get_all_internal_states")()); });
  };
  host->normalize_state = [ospite](const Json& stato) {
    return con_gil(
        [&] { return da_python(ospite->modulo.attr("normalize_state")(in_python(stato))); });
  };
  host->registra_uscita = registra_uscita;
  host->installa_sigterm = installa_sigterm;
  return host;
}

}  // namespace nvr::python

#include "testing/host_web.h"

#include <cctype>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "web/invio_file.h"

namespace nvr::testing {

namespace {

std::string decodifica(const std::string& s) {
  std::string fuori;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '+') {
      fuori += ' ';
    } else if (s[i] == '%' && i + 2 < s.size() &&
               std::isxdigit(static_cast<unsigned char>(s[i + 1])) &&
               std::isxdigit(static_cast<unsigned char>(s[i + 2]))) {
      fuori += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      fuori += s[i];
    }
  }
  return fuori;
}

RispostaHttp da_json(int status, const Json& j) {
  RispostaHttp r;
  r.status = status;
  r.corpo = j.dump(-1, ' ', false, Json::error_handler_t::replace);
  r.json = j;
  r.intestazioni["Content-Type"] = "application/json";
  return r;
}

}  // namespace

void AppDiProva::add_url_rule(const std::string& percorso, const std::string& endpoint, Vista vista,
                              const std::vector<std::string>& metodi) {
  std::lock_guard l(m_);
  for (const auto& r : rotte_)
    if (r.endpoint == endpoint) throw std::runtime_error("endpoint gia' registrato: " + endpoint);
  rotte_.push_back({percorso, endpoint, std::move(vista), metodi});
}

std::vector<AppDiProva::Registrata> AppDiProva::rotte() const {
  std::lock_guard l(m_);
  return rotte_;
}

RispostaHttp AppDiProva::chiama(const std::string& metodo, const std::string& indirizzo,
                                const std::string& corpo,
                                std::map<std::string, std::string> intestazioni) const {
  Richiesta req;
  req.metodo = metodo;
  std::string percorso = indirizzo;
  auto q = indirizzo.find('?');
  if (q != std::string::npos) {
    percorso = indirizzo.substr(0, q);
    std::string query = indirizzo.substr(q + 1);
    std::size_t i = 0;
    while (i <= query.size()) {
      std::size_t j = query.find('&', i);
      std::string coppia = query.substr(i, j == std::string::npos ? j : j - i);
      auto uguale = coppia.find('=');
      std::string k = decodifica(coppia.substr(0, uguale));
      std::string v = uguale == std::string::npos ? "" : decodifica(coppia.substr(uguale + 1));
      if (!k.empty()) req.query.emplace(k, v);
      if (j == std::string::npos) break;
      i = j + 1;
    }
  }
  req.corpo = corpo_da_testo(corpo);
  for (auto& [k, v] : intestazioni) req.intestazioni[nome_intestazione(k)] = v;

  Vista vista;
  bool percorso_noto = false;
  for (const auto& r : rotte()) {
    std::optional<std::int64_t> rid;
    if (!corrisponde_rotta(r.percorso, percorso, rid)) continue;
    percorso_noto = true;
    for (const auto& m : r.metodi)
      if (m == metodo) {
        vista = r.vista;
        req.rid = rid;
      }
    if (vista) break;
  }
  if (!vista) return da_json(percorso_noto ? 405 : 404, Json{{"status", "error"}});

  Risposta risposta;
  try {
    risposta = vista(req);
  } catch (const std::exception& e) {
    return da_json(500, Json{{"status", "error"}, {"message", e.what()}});
  }
  if (!risposta.file) {
    RispostaHttp r = da_json(risposta.status, risposta.corpo);
    for (auto& [k, v] : risposta.intestazioni) r.intestazioni[k] = v;
    return r;
  }
  RispostaHttp r;
  auto info = info_file(risposta.file->percorso);
  if (!info) return da_json(404, Json{{"status", "error"}});
  PianoInvio piano = pianifica_invio(*risposta.file, *info, req.intestazioni);
  r.status = piano.status;
  for (auto& [k, v] : piano.intestazioni) r.intestazioni[k] = v;
  for (auto& [k, v] : risposta.intestazioni) r.intestazioni[k] = v;
  if (piano.lunghezza > 0) {
    std::ifstream f(risposta.file->percorso, std::ios::binary);
    f.seekg(piano.inizio);
    r.corpo.resize(static_cast<std::size_t>(piano.lunghezza));
    f.read(r.corpo.data(), piano.lunghezza);
  }
  return r;
}

HostWeb::HostWeb() : HostDiProva(Aggancia::kNo), app(std::make_shared<AppDiProva>()) {
  host->app = app;
  host->login_required = [this](Vista v) -> Vista {
    return [this, v](const Richiesta& r) {
      guardie.push_back("login");
      if (!loggato) return errore_json("accesso richiesto", 401);
      return v(r);
    };
  };
  host->admin_required = [this](Vista v) -> Vista {
    return [this, v](const Richiesta& r) {
      guardie.push_back("admin");
      if (!admin) return errore_json("solo amministratori", 403);
      return v(r);
    };
  };
  host->registra_uscita = [this](std::function<void()> f) { uscite.push_back(std::move(f)); };
  host->installa_sigterm = [this](std::function<void()> f) { sigterm = std::move(f); };
}

}  // namespace nvr::testing

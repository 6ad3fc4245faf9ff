#include "web/api_salute.h"

#include "core/tempo.h"
#include "engine/salute.h"

namespace nvr {

namespace {

template <class T>
Json o_null(const std::optional<T>& v) {
  return v ? Json(*v) : Json(nullptr);
}

}  // namespace

Risposta api_salute(const Richiesta&) {
  Salute s = salute_attuale();
  if (s.problemi.empty()) return _json({{"stato", "ok"}});
  return _json({{"stato", "problemi"}, {"problemi", s.problemi.size()}}, 503);
}

Risposta api_salute_dettagli(const Richiesta&) {
  Salute s = salute_attuale();
  const double adesso = _ora();
  Json problemi = Json::array();
  for (const Problema& p : s.problemi)
    problemi.push_back({{"codice", p.codice}, {"testo", p.testo}, {"da", p.da}});
  Json telecamere = Json::array();
  for (const SaluteCamera& c : s.telecamere) {
    Json eta = c.ultimo_segmento ? Json(std::max(0.0, adesso - *c.ultimo_segmento)) : Json(nullptr);
    telecamere.push_back({{"id", c.id},
                          {"nome", c.nome},
                          {"stato", testo_stato(c.stato)},
                          {"ultimo_segmento", o_null(c.ultimo_segmento)},
                          {"eta_ultimo_segmento", eta},
                          {"avvii_ultima_ora", c.avvii_ultima_ora},
                          {"byte_ora", c.byte_ora},
                          {"segmenti", c.segmenti},
                          {"byte", c.byte}});
  }
  return _json({{"stato", s.problemi.empty() ? "ok" : "problemi"},
                {"quando", s.quando},
                {"adesso", adesso},
                {"problemi", std::move(problemi)},
                {"telecamere", std::move(telecamere)},
                {"archivio",
                 {{"collegato", s.archivio_collegato},
                  {"byte_liberi", o_null(s.byte_liberi)},
                  {"byte_totali", o_null(s.byte_totali)},
                  {"giorni_rimasti", o_null(s.giorni_rimasti)}}},
                {"ffmpeg", s.ffmpeg}});
}

void registra_rotte_salute(AppWeb& app, const Guardia& login, const Guardia&) {
  app.add_url_rule("/api/salute", "salute", Vista(api_salute), {"GET"});
  Vista dettagli = api_salute_dettagli;
  if (login) dettagli = login(std::move(dettagli));
  app.add_url_rule("/api/salute/dettagli", "salute_dettagli", std::move(dettagli), {"GET"});
}

}  // namespace nvr

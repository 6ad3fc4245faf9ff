// GET /metrics: the recorder's health for a Prometheus server, in the text exposition format
// 0.0.4. Every name starts with "nvr_" and carries its unit (_bytes, _seconds, _total). Nothing
// secret goes out: camera names and ids, states, sizes, problem codes and counts; never an
// address, a password or a token.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/contatori.h"
#include "core/host.h"
#include "core/richiesta.h"
#include "engine/salute.h"

namespace nvr {

// What one scrape shows.
struct DatiMetriche {
  Salute salute;
  IstogrammaGiri giri;
  std::optional<std::int64_t> righe_indice;  // absent when the database could not answer
  std::vector<Contatore> contatori;          // the named counters (core/contatori.h), MQTT's
};

inline constexpr const char* kTipoMetriche = "text/plain; version=0.0.4; charset=utf-8";

// The exposition text: one "# HELP" and one "# TYPE" per family, label values escaped, the
// histogram as cumulative _bucket{le=...} lines ending with +Inf, then _sum and _count. A
// counter whose name is not a valid metric name, or repeats an earlier one, is left out. Pure.
std::string testo_metriche(const DatiMetriche& d);

// The health snapshot, the histogram, the counters and the index row count (one short query
// over the per-camera totals). Blocks on the database for that query only.
DatiMetriche raccogli_metriche();

// 200 with testo_metriche(raccogli_metriche()) as kTipoMetriche.
Risposta api_metriche(const Richiesta& r);

// Adds GET /metrics. A request with "Authorization: Bearer <t>" is served without login when
// `token()` is not empty and equals <t> (compared in constant time); any other bearer gets 401
// "Token delle metriche non valido". A request without a bearer goes through `login` (none when
// empty). `token` is called once per request carrying a bearer; it may block on the database.
void registra_rotte_metriche(AppWeb& app, const Guardia& login, std::function<std::string()> token);

}  // namespace nvr

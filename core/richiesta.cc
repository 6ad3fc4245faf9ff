#include "core/richiesta.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "core/testi.h"

namespace nvr {

bool corrisponde_rotta(const std::string& regola, const std::string& percorso,
                       std::optional<std::int64_t>& rid) {
  const auto segnaposto = regola.find("<int:rid>");
  if (segnaposto == std::string::npos) return regola == percorso;
  const std::string_view dopo = std::string_view(regola).substr(segnaposto + 9);
  if (percorso.size() < segnaposto + dopo.size()) return false;
  if (percorso.compare(0, segnaposto, regola, 0, segnaposto) != 0) return false;
  if (!std::string_view(percorso).ends_with(dopo)) return false;
  const std::string resto = percorso.substr(segnaposto, percorso.size() - segnaposto - dopo.size());
  // 18 digits always fit an int64, so the conversion below cannot throw.
  if (resto.empty() || resto.size() > 18) return false;
  for (char c : resto)
    if (c < '0' || c > '9') return false;
  rid = std::stoll(resto);
  return true;
}

Json corpo_da_testo(const std::string& testo) {
  auto letto = leggi_json(testo);
  return letto && letto->is_object() ? *letto : Json::object();
}

std::string nome_intestazione(std::string nome) { return minuscolo(std::move(nome)); }

std::string Richiesta::parametro(const std::string& nome) const {
  auto it = query.find(nome);
  return it == query.end() ? std::string() : it->second;
}

Risposta _json(Json corpo, int status) {
  Risposta r;
  r.status = status;
  r.corpo = std::move(corpo);
  return r;
}

Risposta errore_json(const std::string& messaggio, int status) {
  return _json(Json{{"status", "error"}, {"message", messaggio}}, status);
}

Flusso::Lettura leggi_attendendo(Flusso& flusso, char* dove, std::size_t max, std::size_t& n,
                                 double secondi) {
  // The wake-up may come after this call has returned: it must find its state alive.
  struct Attesa {
    std::mutex m;
    std::condition_variable cv;
    bool svegliato = false;  // guarded by m
  };
  const auto limite = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondi);
  for (;;) {
    auto attesa = std::make_shared<Attesa>();
    Flusso::Lettura l = flusso.leggi(dove, max, n, [attesa] {
      std::lock_guard l(attesa->m);
      attesa->svegliato = true;
      attesa->cv.notify_all();
    });
    if (l != Flusso::Lettura::kVuoto) return l;
    std::unique_lock lk(attesa->m);
    if (!attesa->cv.wait_until(lk, limite, [&] { return attesa->svegliato; }))
      return Flusso::Lettura::kVuoto;
  }
}

}  // namespace nvr

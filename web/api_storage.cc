#include "web/api_storage.h"

#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

#include "core/condiviso.h"
#include "core/config.h"
#include "core/log.h"
#include "core/processo.h"
#include "core/stato.h"
#include "core/testi.h"
#include "engine/registratori.h"
#include "storage/archivio.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "storage/rete.h"
#include "storage/usb.h"
#include "web/api_stato.h"

namespace nvr {

namespace {
Condiviso<Installazione> _installazione;  // replaced whole by the installing thread
}  // namespace

Installazione stato_installazione() { return _installazione.get(); }
void imposta_installazione_per_test(Installazione i) { _installazione.set(std::move(i)); }

namespace {

const char* const kComandoInstallazione =
    "apt-get update -y && apt-get install -y ffmpeg cifs-utils";

Json corpo_di(const Richiesta& r) { return r.corpo.is_object() ? r.corpo : Json::object(); }

Json spazio_fresco(const std::string& cartella) {
  auto s = _spazio_sicuro(cartella, 0);
  return s ? s->come_json() : Json(nullptr);
}

// At most `n` characters of the UTF-8 text `s`, never cutting one in half.
std::string primi_caratteri(const std::string& s, std::size_t n) {
  std::size_t visti = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if ((static_cast<unsigned char>(s[i]) & 0xC0) == 0x80) continue;  // inside a character
    if (visti++ == n) return s.substr(0, i);
  }
  return s;
}

// What apt-get said last, which is what explains a failure.
std::string ultima_riga(const RisultatoComando& esito) {
  std::string testo = spoglia(esito.err);
  if (testo.empty()) testo = spoglia(esito.out);
  if (testo.empty()) return "errore sconosciuto";
  auto a = testo.find_last_of("\r\n");
  return primi_caratteri(a == std::string::npos ? testo : testo.substr(a + 1), 200);
}

// The share to mount as the page sent it; the page never receives the saved password, so a
// re-mount of the saved share without one uses it again.
Json condivisione_richiesta(const Json& corpo) {
  Json dest = corpo;
  if (pieno(campo(corpo, "password"))) return dest;
  const Json salvata = leggi_config().destinazione;
  if (testo_campo(salvata, "tipo") != "rete" || vuoto(campo(salvata, "password"))) return dest;
  for (const char* chiave : {"server", "share", "utente"})
    if (testo_campo(corpo, chiave) != testo_campo(salvata, chiave)) return dest;
  dest["password"] = campo(salvata, "password");
  return dest;
}

Json cartelle_json(const std::vector<VoceCartella>& voci) {
  Json lista = Json::array();
  for (const VoceCartella& v : voci)
    lista.push_back(Json{{"nome", v.nome}, {"percorso", v.percorso}});
  return lista;
}

Risposta sfoglia(const Richiesta& r) {
  const std::string base = r.parametro("base");
  std::string radice_montaggi_ = radice_montaggi();
  while (!radice_montaggi_.empty() && radice_montaggi_.back() == '/') radice_montaggi_.pop_back();
  // An unplugged drive leaves its empty mount folder on the system disk: listing it would look
  // like an empty drive.
  const std::string radice = _radice_montaggio(base);
  if (base.starts_with(radice_montaggi_ + "/") && (radice == "/" || radice.empty()))
    return errore_json(
        "L'unita' non e' montata: premi di nuovo \"Usa questa unita'\" o \"Collega\"", 400);
  auto voci = cartelle(base);
  if (!voci) return errore_json("Cartella non leggibile o non ammessa", 400);
  return _json(Json{{"status", "success"},
                    {"base", base},
                    {"cartelle", cartelle_json(*voci)},
                    {"spazio", spazio_fresco(base)},
                    {"radice", radice == "/" ? "" : radice}});
}

Risposta crea(const Richiesta& r) {
  const Json corpo = corpo_di(r);
  auto [ok, msg, percorso] = crea_cartella(testo_campo(corpo, "base"), testo_campo(corpo, "nome"));
  return _json(
      Json{
          {"status", ok ? "success" : "error"}, {"message", msg}, {"percorso", ok ? percorso : ""}},
      ok ? 200 : 400);
}

}  // namespace

Risposta api_monta(const Richiesta& r) {
  const Json corpo = corpo_di(r);
  auto [root, perche] = _root_ok();
  if (!root) return errore_json("Non posso montare: " + perche, 400);

  bool ok = false;
  std::string msg, mp;
  Json unita = nullptr;
  if (testo_campo(corpo, "tipo") == "rete") {
    std::tie(ok, msg, mp) = monta_rete(condivisione_richiesta(corpo));
  } else {
    const std::string dev = testo_campo(corpo, "dev"), uuid = testo_campo(corpo, "uuid"),
                      etichetta = testo_campo(corpo, "etichetta");
    if (auto u = _trova_unita(dev, uuid, etichetta))
      unita = Json{{"dev", u->dev}, {"uuid", u->uuid}, {"etichetta", u->etichetta}};
    std::tie(ok, msg, mp) = monta_usb(dev, uuid, etichetta);
  }
  if (!ok) return errore_json(msg, 400);
  return _json(Json{{"status", "success"},
                    {"message", msg},
                    {"mountpoint", mp},
                    {"spazio", spazio_fresco(mp)},
                    {"unita", unita}});
}

Risposta api_smonta(const Richiesta& r) {
  std::string mp = testo_campo(corpo_di(r), "mountpoint");
  // No recorder may keep a file open on the drive while it goes.
  if (smontabile(mp)) _ferma_tutto("smontaggio");
  auto [ok, msg] = smonta(mp);
  return _json(Json{{"status", ok ? "success" : "error"}, {"message", msg}}, ok ? 200 : 400);
}

Risposta api_cartelle(const Richiesta& r) { return r.metodo == "POST" ? crea(r) : sfoglia(r); }

Risposta api_installa_ffmpeg(const Richiesta&) {
  auto riuscita = [](const char* msg) {
    return _json(Json{{"status", "success"}, {"message", msg}});
  };
  if (ffmpeg_presente()) return riuscita("ffmpeg e' gia' installato");
  if (!programma_presente("apt-get"))
    return errore_json("Installazione automatica non disponibile su questo sistema", 400);
  auto [root, perche] = _root_ok();
  if (!root) return errore_json("Non posso installare: " + perche, 400);

  // Test and mark in one step, so that two clicks arriving together start one installation.
  bool gia = false;
  _installazione.modifica([&](Installazione& i) {
    gia = i.in_corso;
    if (!gia) i = Installazione{"Installazione in corso...", true};
  });
  if (gia) return riuscita("Installazione gia' in corso");
  try {
    std::thread(_installa).detach();
  } catch (const std::system_error&) {
    _installazione.set(Installazione{});
    throw;
  }
  return riuscita("Installazione avviata: ci vogliono un paio di minuti");
}

void _installa() {
  // The last act on shared state is publishing the outcome: a caller that sees in_corso drop
  // knows that this thread has nothing left to do.
  try {
    _installazione.set(Installazione{"Installazione in corso...", true});
    RisultatoComando esito = _radice({"bash", "-c", kComandoInstallazione}, 900);
    const bool presente = ffmpeg_presente();
    std::string testo = presente ? "" : "Installazione non riuscita: " + ultima_riga(esito);
    _log("installazione ffmpeg terminata: presente=" + testo_di(Json(presente)) + " " + testo);
    _installazione.set(Installazione{testo, false});
  } catch (const std::exception& e) {
    _log(std::string("installazione ffmpeg: ") + e.what());
    _installazione.set(
        Installazione{"Installazione non riuscita: " + std::string(e.what()), false});
  } catch (...) {
    _log("installazione ffmpeg: errore sconosciuto");
    _installazione.set(Installazione{"Installazione non riuscita: errore sconosciuto", false});
  }
}

}  // namespace nvr

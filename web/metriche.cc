#include "web/metriche.h"

#include <openssl/crypto.h>
#include <openssl/sha.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <exception>
#include <set>
#include <utility>

#include "archive/riepilogo.h"
#include "core/log.h"
#include "engine/mqtt.h"

namespace nvr {

namespace {

std::string numero(double v) {
  if (std::isnan(v)) return "NaN";
  if (std::isinf(v)) return v > 0 ? "+Inf" : "-Inf";
  char b[32];
  auto [fine, ec] = std::to_chars(b, b + sizeof b, v);
  return ec == std::errc() ? std::string(b, fine) : "NaN";
}

std::string numero(std::uint64_t v) { return std::to_string(v); }
std::string numero(std::int64_t v) { return std::to_string(v); }

std::string valore_etichetta(const std::string& s) {
  std::string e;
  e.reserve(s.size());
  for (char c : s) {
    if (c == '\\')
      e += "\\\\";
    else if (c == '"')
      e += "\\\"";
    else if (c == '\n')
      e += "\\n";
    else
      e += c;
  }
  return e;
}

std::string testo_aiuto(const std::string& s) {
  std::string e;
  for (char c : s) {
    if (c == '\\')
      e += "\\\\";
    else if (c == '\n')
      e += "\\n";
    else
      e += c;
  }
  return e;
}

bool nome_valido(const std::string& n) {
  if (n.empty()) return false;
  for (std::size_t i = 0; i < n.size(); ++i) {
    const char c = n[i];
    const bool lettera = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
    if (!lettera && !(i > 0 && c >= '0' && c <= '9')) return false;
  }
  return true;
}

using Etichette = std::vector<std::pair<std::string, std::string>>;

// One metric family: its header once, then its samples. A family without samples writes nothing.
class Famiglia {
 public:
  Famiglia(std::string& out, std::string nome, std::string tipo, std::string aiuto)
      : out_(out), nome_(std::move(nome)), tipo_(std::move(tipo)), aiuto_(std::move(aiuto)) {}

  void campione(const std::string& valore, const Etichette& etichette = {},
                const char* suffisso = "") {
    if (!intestata_) {
      out_ += "# HELP " + nome_ + " " + testo_aiuto(aiuto_) + "\n";
      out_ += "# TYPE " + nome_ + " " + tipo_ + "\n";
      intestata_ = true;
    }
    out_ += nome_ + suffisso;
    if (!etichette.empty()) {
      out_ += '{';
      for (std::size_t i = 0; i < etichette.size(); ++i) {
        if (i) out_ += ',';
        out_ += etichette[i].first + "=\"" + valore_etichetta(etichette[i].second) + "\"";
      }
      out_ += '}';
    }
    out_ += " " + valore + "\n";
  }

 private:
  std::string& out_;
  std::string nome_, tipo_, aiuto_;
  bool intestata_ = false;
};

Etichette di_camera(const SaluteCamera& c) {
  return {{"cam", std::to_string(c.id)}, {"nome", c.nome}};
}

void telecamere(std::string& out, const std::vector<SaluteCamera>& cams) {
  Famiglia stato(out, "nvr_telecamera_stato", "gauge",
                 "1 per lo stato attuale della telecamera (registra, ferma, spenta, in_attesa), "
                 "0 per gli altri");
  for (const auto& c : cams)
    for (StatoCamera s :
         {StatoCamera::registra, StatoCamera::ferma, StatoCamera::spenta, StatoCamera::in_attesa}) {
      Etichette e = di_camera(c);
      e.emplace_back("stato", testo_stato(s));
      stato.campione(c.stato == s ? "1" : "0", e);
    }
  Famiglia ultimo(out, "nvr_telecamera_ultimo_segmento_timestamp_seconds", "gauge",
                  "Fine del segmento indicizzato piu' recente (secondi dall'epoca Unix)");
  for (const auto& c : cams)
    if (c.ultimo_segmento) ultimo.campione(numero(*c.ultimo_segmento), di_camera(c));
  Famiglia avvii(out, "nvr_telecamera_avvii_registratore_ultima_ora", "gauge",
                 "Avvii del registratore della telecamera nell'ultima ora");
  for (const auto& c : cams) avvii.campione(numero(std::int64_t{c.avvii_ultima_ora}), di_camera(c));
  Famiglia velocita(out, "nvr_telecamera_scrittura_bytes_al_secondo", "gauge",
                    "Byte registrati al secondo, misurati sui segmenti delle ultime 24 ore");
  for (const auto& c : cams) velocita.campione(numero(c.byte_ora / 3600.0), di_camera(c));
  Famiglia segmenti(out, "nvr_telecamera_segmenti", "gauge",
                    "Segmenti indicizzati della telecamera");
  for (const auto& c : cams) segmenti.campione(numero(c.segmenti), di_camera(c));
  Famiglia byte(out, "nvr_telecamera_segmenti_bytes", "gauge",
                "Byte dei segmenti indicizzati della telecamera");
  for (const auto& c : cams) byte.campione(numero(c.byte), di_camera(c));
}

void archivio(std::string& out, const Salute& s) {
  Famiglia(out, "nvr_archivio_collegato", "gauge", "1 quando l'archivio e' collegato e pronto")
      .campione(s.archivio_collegato ? "1" : "0");
  if (s.byte_liberi)
    Famiglia(out, "nvr_archivio_liberi_bytes", "gauge", "Spazio libero nell'archivio")
        .campione(numero(std::uint64_t{*s.byte_liberi}));
  if (s.byte_totali)
    Famiglia(out, "nvr_archivio_totali_bytes", "gauge", "Dimensione dell'archivio")
        .campione(numero(std::uint64_t{*s.byte_totali}));
  if (s.giorni_rimasti)
    Famiglia(out, "nvr_archivio_autonomia_seconds", "gauge",
             "Tempo prima che l'archivio sia pieno al ritmo di registrazione misurato")
        .campione(numero(*s.giorni_rimasti * 86400.0));
  Famiglia(out, "nvr_ffmpeg_disponibile", "gauge", "1 quando ffmpeg e' installato")
      .campione(s.ffmpeg ? "1" : "0");
}

void problemi(std::string& out, const Salute& s) {
  Famiglia(out, "nvr_problemi", "gauge", "Problemi aperti")
      .campione(numero(std::uint64_t{s.problemi.size()}));
  Famiglia da(out, "nvr_problema_inizio_timestamp_seconds", "gauge",
              "Da quando e' aperto ogni problema, per codice (secondi dall'epoca Unix)");
  for (const auto& p : s.problemi) da.campione(numero(p.da), {{"codice", p.codice}});
}

void giri(std::string& out, const IstogrammaGiri& g) {
  Famiglia f(out, "nvr_motore_giro_durata_seconds", "histogram", "Durata dei giri del motore");
  for (std::size_t i = 0; i < g.limiti.size() && i < g.conteggi.size(); ++i)
    f.campione(numero(g.conteggi[i]), {{"le", numero(g.limiti[i])}}, "_bucket");
  f.campione(numero(g.totale), {{"le", "+Inf"}}, "_bucket");
  f.campione(numero(g.somma), {}, "_sum");
  f.campione(numero(g.totale), {}, "_count");
}

// Bodies for hosts: the text as it is, with its length known.
class FlussoTesto : public Flusso {
 public:
  explicit FlussoTesto(std::string testo) : testo_(std::move(testo)) {}
  Lettura leggi(char* dove, std::size_t max, std::size_t& n, std::function<void()>) override {
    if (fuori_ == testo_.size()) return Lettura::kFine;
    n = std::min(max, testo_.size() - fuori_);
    testo_.copy(dove, n, fuori_);
    fuori_ += n;
    return Lettura::kDati;
  }
  std::string tipo() const override { return kTipoMetriche; }
  std::optional<std::uint64_t> lunghezza() const override { return testo_.size(); }

 private:
  std::string testo_;
  std::size_t fuori_ = 0;
};

// Equal texts, in a time that depends on neither's content or length: the digests are compared.
bool uguali_a_tempo_costante(const std::string& a, const std::string& b) {
  unsigned char da[SHA256_DIGEST_LENGTH], db[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(a.data()), a.size(), da);
  SHA256(reinterpret_cast<const unsigned char*>(b.data()), b.size(), db);
  return CRYPTO_memcmp(da, db, sizeof da) == 0;
}

std::string minuscolo(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

}  // namespace

std::string testo_metriche(const DatiMetriche& d) {
  std::string out;
  telecamere(out, d.salute.telecamere);
  archivio(out, d.salute);
  problemi(out, d.salute);
  if (d.salute.quando > 0)
    Famiglia(out, "nvr_salute_aggiornata_timestamp_seconds", "gauge",
             "Quando il motore ha aggiornato lo stato di salute (secondi dall'epoca Unix)")
        .campione(numero(d.salute.quando));
  giri(out, d.giri);
  if (d.righe_indice)
    Famiglia(out, "nvr_indice_righe", "gauge", "Righe dell'indice delle registrazioni")
        .campione(numero(*d.righe_indice));
  std::set<std::string> visti;  // a family appears once, whoever raised it
  for (const auto& c : d.contatori) {
    if (!c.nome.starts_with("nvr_") || !nome_valido(c.nome) || !visti.insert(c.nome).second)
      continue;
    Famiglia(out, c.nome, "counter",
             c.aiuto.empty() ? "Conteggio dall'avvio del programma" : c.aiuto)
        .campione(numero(c.valore));
  }
  return out;
}

DatiMetriche raccogli_metriche() {
  DatiMetriche d;
  d.salute = salute_attuale();
  d.giri = istogramma_giri();
  d.contatori = contatori();
  const StatoMqtt mqtt = stato_mqtt();
  d.contatori.push_back({"nvr_mqtt_messaggi_ricevuti_total",
                         "Messaggi MQTT accettati come stato di un'entita'", mqtt.ricevuti});
  d.contatori.push_back({"nvr_mqtt_messaggi_scartati_total",
                         "Messaggi MQTT ignorati: troppo grandi, malformati o di un topic ignoto",
                         mqtt.scartati});
  try {
    d.righe_indice = righe_indice();
  } catch (const std::exception& e) {
    _log(std::string("metriche: righe dell'indice non lette: ") + e.what());
  }
  return d;
}

Risposta api_metriche(const Richiesta&) {
  Risposta r;
  r.flusso = std::make_shared<FlussoTesto>(testo_metriche(raccogli_metriche()));
  return r;
}

void registra_rotte_metriche(AppWeb& app, const Guardia& login,
                             std::function<std::string()> token) {
  Vista con_login = login ? login(api_metriche) : Vista(api_metriche);
  Vista vista = [con_login, token](const Richiesta& r) {
    auto it = r.intestazioni.find("authorization");
    constexpr std::size_t kSchema = 7;  // "Bearer ", any case
    if (it == r.intestazioni.end() || it->second.size() < kSchema ||
        minuscolo(it->second.substr(0, kSchema)) != "bearer ")
      return con_login(r);
    const std::string atteso = token ? token() : "";
    if (atteso.empty() || !uguali_a_tempo_costante(it->second.substr(kSchema), atteso))
      return errore_json("Token delle metriche non valido", 401);
    return api_metriche(r);
  };
  app.add_url_rule("/metrics", "metriche", std::move(vista), {"GET"});
}

}  // namespace nvr

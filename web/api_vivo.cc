#include "web/api_vivo.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/json.h"
#include "core/testi.h"
#include "engine/vivo.h"
#include "engine/vivo_foto.h"

namespace nvr {

namespace {

constexpr const char* kNonTrovata = "Telecamera non trovata";

bool troppe(const std::string& messaggio) { return messaggio.starts_with("Troppe telecamere"); }

// Hands the next bytes of `attesa` from `fuori` on (at least one must be left) to the server.
Flusso::Lettura consegna(const std::string& attesa, std::size_t& fuori, char* dove, std::size_t max,
                         std::size_t& n) {
  n = std::min(max, attesa.size() - fuori);
  std::memcpy(dove, attesa.data() + fuori, n);
  fuori += n;
  return Flusso::Lettura::kDati;
}

// One viewer's stream as a body: the bytes already read first, then whatever the source sends.
// Only the server's network thread reads it; the wake-up comes from the source's thread.
class FlussoSpettatore : public Flusso {
 public:
  FlussoSpettatore(std::unique_ptr<Spettatore> s, std::string primi)
      : spettatore_(std::move(s)), attesa_(std::move(primi)) {}

  Lettura leggi(char* dove, std::size_t max, std::size_t& n,
                std::function<void()> sveglia) override {
    if (fuori_ == attesa_.size()) {
      nvr::Lettura l = spettatore_->prova();
      if (l.stato == nvr::Lettura::Stato::finito) return Lettura::kFine;
      if (l.stato == nvr::Lettura::Stato::niente) {
        spettatore_->al_risveglio(std::move(sveglia));  // runs at once if something came since
        return Lettura::kVuoto;
      }
      attesa_ = std::move(l.dati);
      fuori_ = 0;
    }
    return consegna(attesa_, fuori_, dove, max, n);
  }
  std::string tipo() const override { return "video/mp4"; }

 private:
  std::unique_ptr<Spettatore> spettatore_;
  std::string attesa_;
  std::size_t fuori_ = 0;
};

// Fixed bytes as a body (a picture).
class FlussoFisso : public Flusso {
 public:
  FlussoFisso(std::string dati, std::string tipo)
      : dati_(std::move(dati)), tipo_(std::move(tipo)) {}
  Lettura leggi(char* dove, std::size_t max, std::size_t& n, std::function<void()>) override {
    if (fuori_ == dati_.size()) return Lettura::kFine;
    return consegna(dati_, fuori_, dove, max, n);
  }
  std::string tipo() const override { return tipo_; }

 private:
  std::string dati_, tipo_;
  std::size_t fuori_ = 0;
};

void metti_u32(std::string& s, std::uint32_t v) {
  for (int i = 3; i >= 0; --i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

std::string cornice(CamId cam, bool fine, const std::string& dati) {
  std::string s;
  s.reserve(9 + dati.size());
  metti_u32(s, static_cast<std::uint32_t>(cam));
  s.push_back(fine ? 1 : 0);
  metti_u32(s, static_cast<std::uint32_t>(dati.size()));
  return s + dati;
}

// Several viewers over one body, in frames (see api_griglia). Each camera's end is sent once;
// the body ends when every camera has ended.
class FlussoGriglia : public Flusso {
 public:
  struct Posto {
    CamId cam = 0;
    std::unique_ptr<Spettatore> spettatore;  // null: ended
  };
  FlussoGriglia(std::vector<Posto> posti, std::string primi)
      : posti_(std::move(posti)), attesa_(std::move(primi)) {}

  Lettura leggi(char* dove, std::size_t max, std::size_t& n,
                std::function<void()> sveglia) override {
    if (fuori_ == attesa_.size()) {
      attesa_.clear();
      fuori_ = 0;
      raccogli();
      if (attesa_.empty()) {
        const bool aperti = std::any_of(posti_.begin(), posti_.end(),
                                        [](const Posto& p) { return p.spettatore != nullptr; });
        if (!aperti) return Lettura::kFine;
        for (auto& p : posti_)
          if (p.spettatore) p.spettatore->al_risveglio(sveglia);
        return Lettura::kVuoto;
      }
    }
    return consegna(attesa_, fuori_, dove, max, n);
  }
  std::string tipo() const override { return "application/octet-stream"; }

 private:
  void raccogli() {
    for (auto& p : posti_) {
      if (!p.spettatore) continue;
      nvr::Lettura l = p.spettatore->prova();
      if (l.stato == nvr::Lettura::Stato::dati) attesa_ += cornice(p.cam, false, l.dati);
      if (l.stato == nvr::Lettura::Stato::finito) {
        attesa_ += cornice(p.cam, true, l.motivo);
        p.spettatore.reset();
      }
    }
  }

  std::vector<Posto> posti_;
  std::string attesa_;
  std::size_t fuori_ = 0;
};

// The ids of "1,2,3": distinct, in order; nothing when malformed or empty.
std::optional<std::vector<CamId>> elenco_telecamere(const std::string& testo) {
  std::vector<CamId> ids;
  std::set<CamId> visti;
  std::size_t i = 0;
  while (i <= testo.size()) {
    const std::size_t fine = std::min(testo.find(',', i), testo.size());
    const std::string pezzo = testo.substr(i, fine - i);
    if (pezzo.empty() || pezzo.size() > 9 ||
        pezzo.find_first_not_of("0123456789") != std::string::npos)
      return std::nullopt;
    const CamId id = std::stoll(pezzo);
    if (visti.insert(id).second) ids.push_back(id);
    i = fine + 1;
  }
  if (ids.empty()) return std::nullopt;
  return ids;
}

}  // namespace

std::optional<Camera> telecamera_registrata(CamId id) {
  for (Camera& c : _telecamere())
    if (c.id == id) return std::move(c);
  return std::nullopt;
}

Risposta api_vivo(const Richiesta& r, const TrovaTelecamera& trova) {
  std::optional<Camera> cam = r.rid ? trova(*r.rid) : std::nullopt;
  if (!cam) return errore_json(kNonTrovata, 404);
  auto spettatore = guarda_dal_vivo(*cam);
  if (!spettatore) {
    const std::string& m = spettatore.errore().messaggio;
    return errore_json(m, troppe(m) ? 503 : 502);
  }
  std::unique_ptr<Spettatore> s = std::move(spettatore.valore());
  nvr::Lettura primi = s->prossimo(kAttesaPrimiDati);
  if (primi.stato == nvr::Lettura::Stato::finito) return errore_json(primi.motivo, 502);
  if (primi.stato == nvr::Lettura::Stato::niente)
    return errore_json("La telecamera non risponde: tempo scaduto", 504);
  Risposta risposta;
  risposta.flusso = std::make_shared<FlussoSpettatore>(std::move(s), std::move(primi.dati));
  return risposta;
}

Risposta api_griglia(const Richiesta& r, const TrovaTelecamera& trova) {
  auto ids = elenco_telecamere(r.parametro("cam"));
  if (!ids || ids->size() > static_cast<std::size_t>(kMassimoVivi))
    return errore_json("Telecamere non valide", 400);
  std::vector<FlussoGriglia::Posto> posti;
  std::string primi;
  for (CamId id : *ids) {
    std::optional<Camera> cam = trova(id);
    if (!cam) {
      primi += cornice(id, true, kNonTrovata);
      continue;
    }
    auto s = guarda_dal_vivo(*cam);
    if (!s) {
      primi += cornice(id, true, s.errore().messaggio);
      continue;
    }
    posti.push_back({id, std::move(s.valore())});
  }
  Risposta risposta;
  risposta.flusso = std::make_shared<FlussoGriglia>(std::move(posti), std::move(primi));
  return risposta;
}

Risposta api_istantanea(const Richiesta& r, const TrovaTelecamera& trova) {
  std::optional<Camera> cam = r.rid ? trova(*r.rid) : std::nullopt;
  if (!cam) return errore_json(kNonTrovata, 404);
  auto jpeg = istantanea_jpeg(*cam);
  if (!jpeg) return errore_json(jpeg.errore().messaggio, 502);
  Risposta risposta;
  risposta.flusso = std::make_shared<FlussoFisso>(std::move(jpeg.valore()), "image/jpeg");
  return risposta;
}

Risposta api_prova_collegamento(const Richiesta& r) {
  const std::string url = spoglia_spazi_e_righe(testo_campo(r.corpo, "url"));
  if (!schema_flusso_valido(url)) return errore_json("Indirizzo del flusso non valido", 400);
  auto prova = prova_connessione(url);
  if (!prova) return errore_json(prova.errore().messaggio, 502);
  const ProvaConnessione& p = prova.valore();
  return _json({{"status", "ok"},
                {"codec", p.codec},
                {"larghezza", p.larghezza},
                {"altezza", p.altezza},
                {"fps", p.fps},
                {"immagine", "data:image/jpeg;base64," + base64(p.jpeg)}});
}

Risposta api_vivi(const Richiesta&) {
  Json vivi = Json::array();
  for (const StatoSorgente& s : vivi_in_corso()) {
    Json v = {{"cam", s.cam},
              {"pid", s.pid},
              {"spettatori", s.spettatori},
              {"da", s.da},
              {"byte", s.byte_memoria}};
    if (s.info) {
      v["codec"] = s.info->codec;
      v["larghezza"] = s.info->larghezza;
      v["altezza"] = s.info->altezza;
    }
    vivi.push_back(std::move(v));
  }
  return _json({{"status", "ok"}, {"vivi", std::move(vivi)}});
}

void registra_rotte_vivo(AppWeb& app, const Guardia& login, const Guardia& admin,
                         TrovaTelecamera trova) {
  auto protetta = [&](Vista v) {
    if (admin) v = admin(std::move(v));
    if (login) v = login(std::move(v));
    return v;
  };
  auto con = [&](Risposta (*f)(const Richiesta&, const TrovaTelecamera&)) {
    return protetta([f, trova](const Richiesta& r) { return f(r, trova); });
  };
  app.add_url_rule("/api/vivo", "vivo_elenco", protetta(api_vivi), {"GET"});
  app.add_url_rule("/api/vivo/griglia", "vivo_griglia", con(api_griglia), {"GET"});
  app.add_url_rule("/api/vivo/prova", "vivo_prova", protetta(api_prova_collegamento), {"POST"});
  app.add_url_rule("/api/vivo/<int:rid>", "vivo", con(api_vivo), {"GET"});
  app.add_url_rule("/api/vivo/<int:rid>/istantanea", "vivo_istantanea", con(api_istantanea),
                   {"GET"});
}

}  // namespace nvr

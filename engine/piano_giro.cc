#include "engine/piano_giro.h"

#include <algorithm>
#include <set>

#include "archive/posizione.h"

namespace nvr {

namespace {

void ferma_tutti(const Situazione& s, const std::string& perche, PianoGiro& piano) {
  for (const auto& [id, r] : s.registratori) piano.azioni.push_back({id, Mossa::ferma, "", perche});
}

Lavori lavori_dovuti(const Situazione& s) {
  Lavori l;
  double t = s.adesso;
  l.indice = t - s.tempi.indice > 10 && (s.cfg.attivo || !s.cfg.cartella.empty());
  l.profondo = l.indice && t - s.tempi.profondo > 600;
  if (!s.cfg.attivo) return l;
  l.allineamento = t - s.tempi.allineamento > 300;
  l.pulizia = t - s.tempi.pulizia > 3600;
  return l;
}

// The running recorder of an enabled camera that must record: keep it, or restart it when its
// folder or segment length no longer match the configuration.
Azione allinea(const Situazione& s, const Camera& cam, const VistaRegistratore& r,
               const std::string& motivo) {
  std::string voluta = _cartella_in_corso(s.cfg, cam, s.cams);
  int segmento = s.cfg.segmento_sec ? s.cfg.segmento_sec : 300;
  if (voluta == r.cartella && segmento == r.segmento) return {cam.id, Mossa::conferma, motivo, ""};
  Azione a{cam.id, Mossa::riavvia, motivo, ""};
  a.perche = segmento != r.segmento ? "nuova durata degli spezzoni" : "cartella cambiata";
  a.cartella_cambiata = !r.cartella.empty() && r.cartella != voluta;
  return a;
}

void pianifica_camere(const Situazione& s, PianoGiro& piano) {
  std::set<CamId> ids;
  for (const Camera& c : s.cams) ids.insert(c.id);
  for (const auto& [id, r] : s.registratori)
    if (!ids.count(id)) piano.azioni.push_back({id, Mossa::ferma, "", "telecamera rimossa"});

  for (const Camera& cam : s.cams) {
    auto r = s.registratori.find(cam.id);
    bool in_corso = r != s.registratori.end();
    auto d = s.decisioni.find(cam.id);
    if (!cam.attiva || cam.url.empty() || d == s.decisioni.end()) {
      if (in_corso) piano.azioni.push_back({cam.id, Mossa::ferma, "", "telecamera disattivata"});
      continue;
    }
    auto [deve, motivo] = d->second;
    if (deve && !in_corso) {
      auto e = s.errori.find(cam.id);
      if (e == s.errori.end() || !in_attesa(e->second, s.adesso))
        piano.azioni.push_back({cam.id, Mossa::avvia, motivo, ""});
    } else if (!deve && in_corso) {
      piano.azioni.push_back({cam.id, Mossa::ferma, "", "fuori orario/evento finito"});
    } else if (deve) {
      piano.azioni.push_back(allinea(s, cam, r->second, motivo));
    }
  }
}

}  // namespace

bool in_attesa(const ErroreRecente& errore, double adesso) {
  return adesso - errore.ts < std::min(5.0 * errore.n, 60.0);
}

PianoGiro pianifica_giro(const Situazione& s) {
  PianoGiro piano;
  if (!s.cfg.attivo) {
    ferma_tutti(s, "NVR disattivato", piano);
    piano.lavori = lavori_dovuti(s);
    return piano;
  }
  if (!s.non_pronto.empty()) {
    ferma_tutti(s, s.non_pronto, piano);
    piano.problema = piano.log_problema = s.non_pronto;
    return piano;
  }
  if (!s.ffmpeg) {
    piano.problema = "ffmpeg non installato";
    piano.log_problema = "ffmpeg non installato: nessuna registrazione";
    return piano;
  }
  pianifica_camere(s, piano);
  piano.lavori = lavori_dovuti(s);
  return piano;
}

}  // namespace nvr

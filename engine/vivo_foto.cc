#include "engine/vivo_foto.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>

#include "core/condiviso.h"
#include "core/testi.h"
#include "engine/registratori.h"
#include "engine/vivo.h"
#include "engine/vivo_ffmpeg.h"
#include "storage/comando.h"

namespace nvr {

namespace {

using Orologio = std::chrono::steady_clock;

struct Foto {
  Orologio::time_point quando;
  std::string jpeg;
};
// The last picture of each camera; a race between two callers only takes it twice.
Condiviso<std::map<CamId, Foto>> _foto;

bool e_jpeg(const std::string& s) { return s.size() > 2 && s[0] == '\xFF' && s[1] == '\xD8'; }

double resta(Orologio::time_point limite) {
  return std::chrono::duration<double>(limite - Orologio::now()).count();
}

double trascorsi(Orologio::time_point da) { return -resta(da); }

int major_per(const std::string& url) {
  return minuscolo(url).starts_with("rtsp") ? _ffmpeg_major() : 5;
}

// A picture decoded from `mp4` (an initialisation segment and a key fragment) through a private
// temporary file: ffmpeg's standard input is the null device.
std::optional<std::string> foto_da_mp4(CamId cid, const std::string& mp4, double secondi) {
  // The recorders' private folder (0700): the picture is the camera's.
  std::string modello =
      (std::filesystem::path(_log_ffmpeg(cid)).parent_path() / "vivo_XXXXXX.mp4").string();
  int fd = ::mkostemps(modello.data(), 4, O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  bool scritto = ::write(fd, mp4.data(), mp4.size()) == static_cast<ssize_t>(mp4.size());
  ::close(fd);
  std::optional<std::string> fuori;
  if (scritto) {
    RisultatoComando r = _comando(argomenti_foto_file(modello), secondi);
    if (r.codice == 0 && e_jpeg(r.out)) fuori = std::move(r.out);
  }
  ::unlink(modello.c_str());
  return fuori;
}

}  // namespace

Esito<std::string> istantanea_jpeg(const Camera& cam) {
  const auto inizio = Orologio::now();
  std::optional<std::string> recente;
  _foto.modifica([&](auto& foto) {
    auto it = foto.find(cam.id);
    if (it != foto.end() && trascorsi(it->second.quando) < kValiditaFoto) recente = it->second.jpeg;
  });
  if (recente) return *recente;
  if (!schema_flusso_valido(cam.url)) return Errore{0, "Indirizzo del flusso non valido"};
  const auto limite = inizio + std::chrono::duration_cast<Orologio::duration>(
                                   std::chrono::duration<double>(kAttesaFoto));
  std::optional<std::string> jpeg;
  if (auto s = sorgente_di(cam.id))
    if (auto mp4 = s->ultima_immagine()) jpeg = foto_da_mp4(cam.id, *mp4, resta(limite));
  if (!jpeg) {
    const int major = major_per(cam.url);
    const auto t0 = Orologio::now();
    RisultatoComando r =
        _comando(argomenti_foto_flusso(cam.url, major), std::max(1.0, resta(limite)));
    if (r.codice == 127) return Errore{r.codice, "ffmpeg non parte: " + r.err};
    if (r.codice != 0 || !e_jpeg(r.out))
      return Errore{r.codice, "Immagine non disponibile: " +
                                  motivo_guasto(r.err, r.codice, trascorsi(t0), cam.url)};
    jpeg = std::move(r.out);
  }
  _foto.modifica([&](auto& foto) { foto[cam.id] = Foto{Orologio::now(), *jpeg}; });
  return *jpeg;
}

Esito<ProvaConnessione> prova_connessione(const std::string& url) {
  if (!schema_flusso_valido(url)) return Errore{0, "Indirizzo del flusso non valido"};
  const int major = major_per(url);
  const auto t0 = Orologio::now();
  RisultatoComando r = _comando(argomenti_foto_flusso(url, major), kAttesaFoto);
  const double durata = trascorsi(t0);
  if (r.codice == 127) return Errore{r.codice, "ffmpeg non parte: " + r.err};
  if (r.codice != 0 || !e_jpeg(r.out))
    return Errore{r.codice, motivo_guasto(r.err, r.codice, durata, url)};
  ProvaConnessione p;
  if (auto info = info_da_stderr(r.err)) {
    p.codec = info->codec;
    p.larghezza = info->larghezza;
    p.altezza = info->altezza;
    p.fps = info->fps;
  }
  p.jpeg = std::move(r.out);
  return p;
}

void azzera_foto_per_test() { _foto.set({}); }

}  // namespace nvr

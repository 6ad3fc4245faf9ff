#include "engine/vivo_ffmpeg.h"

#include <cctype>
#include <cstdlib>

#include "core/testi.h"

namespace nvr {

namespace {

constexpr const char* kTimeout = "5000000";  // microseconds
constexpr double kTimeoutSecondi = 5.0;
constexpr std::string_view kMaschera = "***";

void opzioni_ingresso(std::vector<std::string>& a, const std::string& url, int major) {
  if (!minuscolo(url).starts_with("rtsp")) return;
  // Over UDP a lossy network tears frames; the socket time-out ends a silent camera's ffmpeg.
  a.insert(a.end(), {"-rtsp_transport", "tcp", major < 5 ? "-stimeout" : "-timeout", kTimeout});
}

bool contiene(std::string_view testo, std::string_view parte) {
  return minuscolo(std::string(testo)).find(minuscolo(std::string(parte))) != std::string::npos;
}

std::string ultima_riga(std::string_view testo) {
  while (!testo.empty()) {
    auto a_capo = testo.find_last_of("\r\n");
    std::string riga = spoglia(a_capo == std::string_view::npos ? testo : testo.substr(a_capo + 1));
    if (!riga.empty()) return riga.size() > 200 ? riga.substr(0, 200) + "..." : riga;
    if (a_capo == std::string_view::npos) break;
    testo = testo.substr(0, a_capo);
  }
  return "";
}

void sostituisci_tutto(std::string& s, std::string_view da, std::string_view con) {
  if (da.empty()) return;
  for (auto p = s.find(da); p != std::string::npos; p = s.find(da, p + con.size()))
    s.replace(p, da.size(), con);
}

std::string decodifica_percentuale(std::string_view s) {
  std::string fuori;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size() && std::isxdigit(static_cast<unsigned char>(s[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(s[i + 2]))) {
      fuori += static_cast<char>(std::strtol(std::string(s.substr(i + 1, 2)).c_str(), nullptr, 16));
      i += 2;
    } else {
      fuori += s[i];
    }
  }
  return fuori;
}

// The passwords `url` may be read to hold: up to the "@" that ends the host part as ffmpeg reads
// it, and up to the last "@" of all (a password with a "/" in it, typed unencoded).
std::vector<std::string> password_di(std::string_view url) {
  std::vector<std::string> fuori;
  auto schema = url.find("://");
  if (schema == std::string_view::npos) return fuori;
  std::string_view resto = url.substr(schema + 3);
  for (std::string_view parte : {resto.substr(0, resto.find_first_of("/?#")), resto}) {
    auto chiocciola = parte.rfind('@');
    if (chiocciola == std::string_view::npos) continue;
    auto due_punti = parte.substr(0, chiocciola).find(':');
    if (due_punti == std::string_view::npos) continue;
    std::string_view p = parte.substr(due_punti + 1, chiocciola - due_punti - 1);
    if (p.empty() || p == kMaschera) continue;
    fuori.emplace_back(p);
    fuori.push_back(decodifica_percentuale(p));
  }
  return fuori;
}

}  // namespace

std::vector<std::string> argomenti_vivo(const std::string& url, int major) {
  std::vector<std::string> a = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error"};
  opzioni_ingresso(a, url, major);
  // Fragments start at key frames and last at most half a second, so that a viewer waits
  // little for the first picture; empty_moov sends the track description before any sample.
  a.insert(a.end(), {"-i", url, "-map", "0:v:0", "-c:v", "copy", "-an", "-f", "mp4", "-movflags",
                     "frag_keyframe+empty_moov+default_base_moof", "-frag_duration", "500000",
                     "-metadata", kMarcaVivo, "pipe:1"});
  return a;
}

std::vector<std::string> argomenti_foto_flusso(const std::string& url, int major) {
  std::vector<std::string> a = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "info"};
  opzioni_ingresso(a, url, major);
  a.insert(a.end(), {"-i", url, "-map", "0:v:0", "-an", "-frames:v", "1", "-f", "image2", "-c:v",
                     "mjpeg", "-q:v", "4", "pipe:1"});
  return a;
}

std::vector<std::string> argomenti_foto_file(const std::string& percorso) {
  return {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-f",
          "mp4",    "-i",       percorso,       "-frames:v", "1",     "-f",
          "image2", "-c:v",     "mjpeg",        "-q:v",      "4",     "pipe:1"};
}

std::optional<InfoFlusso> info_da_stderr(std::string_view err) {
  std::size_t inizio = 0;
  while (inizio < err.size()) {
    std::size_t fine = err.find('\n', inizio);
    std::string_view riga = err.substr(inizio, fine - inizio);
    inizio = fine == std::string_view::npos ? err.size() : fine + 1;
    auto v = riga.find(": Video: ");
    if (riga.find("Stream #") == std::string_view::npos || v == std::string_view::npos) continue;
    InfoFlusso info;
    std::string_view dopo = riga.substr(v + 9);
    info.codec = std::string(dopo.substr(0, dopo.find_first_of(" ,")));
    // The size is the first "<w>x<h>" word between commas or blanks (not the "0x31637661" tag).
    std::size_t p = 0;
    while (p < dopo.size()) {
      std::size_t q = dopo.find_first_of(" ,[]()", p);
      std::string_view parola = dopo.substr(p, q - p);
      auto x = parola.find('x');
      if (x != std::string_view::npos && x > 0 && parola[0] != '0' &&
          parola.find_first_not_of("0123456789x") == std::string_view::npos) {
        info.larghezza = std::atoi(std::string(parola.substr(0, x)).c_str());
        info.altezza = std::atoi(std::string(parola.substr(x + 1)).c_str());
        if (info.larghezza > 0 && info.altezza > 0) break;
        info.larghezza = info.altezza = 0;
      }
      if (q == std::string_view::npos) break;
      p = q + 1;
    }
    for (std::string_view unita : {" fps", " tbr"}) {
      auto u = dopo.find(unita);
      if (u == std::string_view::npos) continue;
      auto virgola = dopo.substr(0, u).find_last_of(", ");
      std::string numero(dopo.substr(virgola + 1, u - virgola - 1));
      if (numero.ends_with("k")) continue;  // "90k tbn"-like figures are no frame rate
      info.fps = std::atof(numero.c_str());
      if (info.fps > 0) break;
    }
    return info;
  }
  return std::nullopt;
}

Guasto classifica_guasto(std::string_view err, int codice, double secondi) {
  if (contiene(err, "401 Unauthorized") || contiene(err, "authorization failed"))
    return Guasto::credenziali;
  if (contiene(err, "404 Not Found")) return Guasto::percorso;
  if (contiene(err, "Connection refused")) return Guasto::rifiutata;
  // A camera that takes the connection and then says nothing ends ffmpeg at its socket
  // time-out with "Invalid data found": the time tells it apart from a stream of garbage.
  if (codice == 124 || contiene(err, "timed out") || secondi >= kTimeoutSecondi - 0.5)
    return Guasto::tempo_scaduto;
  for (std::string_view s :
       {"Failed to resolve hostname", "Name or service not known", "No route to host",
        "Network is unreachable", "Temporary failure in name resolution"})
    if (contiene(err, s)) return Guasto::irraggiungibile;
  for (std::string_view s :
       {"matches no streams", "does not contain any stream",
        "Invalid data found when processing input", "could not find codec parameters"})
    if (contiene(err, s)) return Guasto::non_video;
  return Guasto::altro;
}

std::string motivo_guasto(std::string_view err, int codice, double secondi,
                          const std::string& url) {
  switch (classifica_guasto(err, codice, secondi)) {
    case Guasto::rifiutata:
      return "Connessione rifiutata: all'indirizzo e alla porta indicati non risponde nessuna "
             "telecamera";
    case Guasto::credenziali:
      return "Utente o password sbagliati: la telecamera rifiuta l'accesso";
    case Guasto::percorso:
      return "Percorso del flusso inesistente: la telecamera non conosce quell'indirizzo";
    case Guasto::tempo_scaduto:
      return "La telecamera non risponde: tempo scaduto";
    case Guasto::irraggiungibile:
      return "Telecamera irraggiungibile: nome o indirizzo sconosciuto, o rete assente";
    case Guasto::non_video:
      return "Il flusso non contiene video leggibile";
    case Guasto::altro:
      break;
  }
  std::string riga = senza_password(ultima_riga(err), url);
  if (riga.empty()) riga = "ffmpeg terminato (codice " + std::to_string(codice) + ")";
  return "Impossibile leggere il flusso: " + riga;
}

std::string senza_password(std::string_view testo, std::string_view url) {
  std::string s(testo);
  for (auto schema = s.find("://"); schema != std::string::npos;
       schema = s.find("://", schema + 3)) {
    std::size_t inizio = schema + 3;
    std::size_t fine = s.find_first_of("/?# \t\r\n'\"", inizio);
    if (fine == std::string::npos) fine = s.size();
    auto chiocciola = s.rfind('@', fine - 1);
    if (chiocciola == std::string::npos || chiocciola < inizio) continue;
    auto due_punti = s.find(':', inizio);
    if (due_punti == std::string::npos || due_punti > chiocciola) continue;
    s.replace(due_punti + 1, chiocciola - due_punti - 1, kMaschera);
  }
  // A password of a few letters would turn up inside ordinary words; it is masked where a URL
  // shows it, and only a longer one is searched for on its own.
  for (const std::string& p : password_di(url))
    if (p.size() >= 4) sostituisci_tutto(s, p, kMaschera);
  return s;
}

}  // namespace nvr

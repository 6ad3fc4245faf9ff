#include "archive/sommari.h"

#include <date/tz.h>

#include <atomic>
#include <exception>
#include <map>
#include <string>
#include <thread>
#include <utility>

#include "archive/nomi_cartelle.h"
#include "core/db.h"
#include "core/log.h"

namespace nvr {

namespace {

std::string nome_zona(Zona z) { return z ? "zona " + z->name() : "ora locale della macchina"; }

// Changes to the sums of one camera and day. Sizes add up as integers and durations as reals:
// with times of this era stored to the microsecond, every duration is an exact multiple of a
// power of two, so sums and differences come out the same in any order.
struct Variazione {
  std::int64_t n = 0;
  std::int64_t byte = 0;
  double sec = 0;
};
using Variazioni = std::map<std::pair<CamId, std::string>, Variazione>;

struct VariazioneCartella {
  std::int64_t n = 0;
  std::uint64_t firma = 0;  // modulo 2^64, as the shares add up
};
using VariazioniCartelle = std::map<std::string, VariazioneCartella, std::less<>>;

std::int64_t come_firma(std::uint64_t f) { return static_cast<std::int64_t>(f); }

// The changes that rows bring, gathered. Rows mostly come camera by camera, day by day and
// folder by folder, so the previous row's entries are tried before the maps.
class Accumulo {
 public:
  explicit Accumulo(Zona z) : giorno_di_(z) {}

  // Adds `segno` times the row (cam_id, inizio, fine, dimensione, file), read exactly as the
  // overview and reconciliation read the index.
  void aggiungi(std::int64_t segno, const Valore& cam, const Valore& inizio, const Valore& fine,
                const Valore& dimensione, const Valore& file) {
    const double da = come_reale(inizio), a = come_reale(fine);
    const CamId id = static_cast<CamId>(come_intero(cam));
    const std::string& giorno = giorno_di_.di(da);
    if (!giorno_ || chiave_giorno_.first != id || chiave_giorno_.second != giorno) {
      chiave_giorno_ = {id, giorno};
      giorno_ = &giorni[chiave_giorno_];
    }
    giorno_->n += segno;
    giorno_->byte += segno * come_intero(dimensione);
    giorno_->sec += static_cast<double>(segno) * std::max(0.0, a - da);

    const std::string* testo = std::get_if<std::string>(&file);
    const std::string altro = testo ? std::string() : come_testo(file);
    const auto [nome_cartella, nome] = cartella_e_nome(testo ? *testo : altro);
    if (!cartella_ || nome_cartella_ != nome_cartella) {
      nome_cartella_ = nome_cartella;
      cartella_ = &cartelle[nome_cartella_];
    }
    cartella_->n += segno;
    cartella_->firma += static_cast<std::uint64_t>(segno) * impronta(nome);
  }

  Variazioni giorni;
  VariazioniCartelle cartelle;

 private:
  GiornoLocale giorno_di_;
  std::pair<CamId, std::string> chiave_giorno_;
  Variazione* giorno_ = nullptr;
  std::string nome_cartella_;
  VariazioneCartella* cartella_ = nullptr;
};

std::optional<std::string> zona_dei_sommari(Connessione& c) {
  auto r = c.righe("SELECT valore FROM nvr_reg_sommari WHERE chiave='fuso'");
  if (r.empty()) return std::nullopt;
  return come_testo(r[0][0]);
}

// Folds the journal into the sums; inside the caller's write transaction.
void ripiega(Connessione& c, Zona z) {
  Accumulo acc(z);
  std::int64_t fino_a = 0;
  c.scorri("SELECT id, segno, cam_id, inizio, fine, dimensione, file FROM nvr_reg_variazioni", {},
           [&](const Riga& r) {
             fino_a = std::max(fino_a, come_intero(r[0]));
             acc.aggiungi(come_intero(r[1]), r[2], r[3], r[4], r[5], r[6]);
           });
  const Variazioni& v = acc.giorni;
  VariazioniCartelle& vc = acc.cartelle;
  if (fino_a == 0) return;
  // The signature's sum wraps around: it is added here rather than in SQL, which would turn an
  // overflowing integer into a real.
  for (auto& [cartella, x] : vc) {
    auto prima = c.righe("SELECT n, firma FROM nvr_reg_cartelle WHERE cartella=?", {cartella});
    if (!prima.empty()) {
      x.n += come_intero(prima[0][0]);
      x.firma += static_cast<std::uint64_t>(come_intero(prima[0][1]));
    }
    if (x.n > 0)
      c.esegui("INSERT OR REPLACE INTO nvr_reg_cartelle (cartella, n, firma) VALUES (?,?,?)",
               {cartella, x.n, come_firma(x.firma)});
    else
      c.esegui("DELETE FROM nvr_reg_cartelle WHERE cartella=?", {cartella});
  }
  std::vector<std::vector<Valore>> lotti;
  for (const auto& [chiave, x] : v)
    lotti.push_back({std::int64_t{chiave.first}, chiave.second, x.n, x.byte, x.sec});
  c.esegui_molti(
      "INSERT INTO nvr_reg_giorni (cam_id, giorno, n, byte, sec) VALUES (?,?,?,?,?) "
      "ON CONFLICT (cam_id, giorno) DO UPDATE SET n = n + excluded.n, "
      "byte = byte + excluded.byte, sec = sec + excluded.sec",
      lotti);
  c.esegui("DELETE FROM nvr_reg_giorni WHERE n <= 0");
  c.esegui("DELETE FROM nvr_reg_variazioni WHERE id <= ?", {fino_a});
}

// Opens the transaction with the write lock taken at once (what BEGIN IMMEDIATE does): a write
// that matches no row still takes it, and the connection opens its own transaction for it.
void prendi_scrittura(Connessione& c) { c.esegui("DELETE FROM nvr_reg_sommari WHERE 0"); }

std::atomic<bool> in_costruzione{false};

// Whether the sums are built for `z`. When they are, the journal has been folded into them in
// the write transaction left open on `c`, so that the caller reads them as folded.
bool ripiegati(Connessione& c, Zona z) {
  const std::string zona = nome_zona(z);
  if (zona_dei_sommari(c) != zona) return false;
  auto voci = c.righe("SELECT MIN(id), MAX(id) FROM nvr_reg_variazioni").at(0);
  if (nullo(voci.at(0))) return true;
  // After most of the index went at once, reading what is left costs less than folding.
  const std::int64_t quante = come_intero(voci[1]) - come_intero(voci[0]) + 1;
  if (quante > 100000 && quante > righe_indice()) {
    costruisci_sommari(z);
    return zona_dei_sommari(c) == zona;
  }
  prendi_scrittura(c);  // no change may slip between fold and read
  if (zona_dei_sommari(c) != zona) return false;
  ripiega(c, z);
  return true;
}

}  // namespace

void ripiega_sommari(Zona z) {
  Connessione c = _db();
  if (ripiegati(c, z)) c.commit();
}

std::optional<std::vector<CartellaIndicizzata>> cartelle_indicizzate(Zona z) {
  Connessione c = _db();
  if (!ripiegati(c, z)) return std::nullopt;
  std::vector<CartellaIndicizzata> fuori;
  c.scorri("SELECT cartella, n, firma FROM nvr_reg_cartelle", {}, [&](const Riga& r) {
    fuori.push_back(
        {come_testo(r[0]), come_intero(r[1]), static_cast<std::uint64_t>(come_intero(r[2]))});
  });
  c.commit();
  return fuori;
}

std::optional<RiepilogoArchivio> riepilogo_da_sommari(Zona z) {
  Connessione c = _db();
  if (!ripiegati(c, z)) return std::nullopt;
  RiepilogoArchivio r;
  c.scorri("SELECT cam_id, giorno, n, byte, sec FROM nvr_reg_giorni", {}, [&](const Riga& g) {
    Somma s{come_intero(g[2]), come_reale(g[3]), come_reale(g[4])};
    RiepilogoCamera& cam = r.camere[static_cast<CamId>(come_intero(g[0]))];
    cam.giorni[come_testo(g[1])] = s;
    cam.totale.n += s.n;
    cam.totale.byte += s.byte;
    cam.totale.sec += s.sec;
    r.righe += s.n;
    r.byte += s.byte;
  });
  c.commit();
  return r;
}

void costruisci_sommari(Zona z) {
  {
    // No fold may run from here until the new sums are in: it would fold changes that the
    // snapshot below already holds, or drop ones it does not.
    Connessione c = _db();
    c.esegui("DELETE FROM nvr_reg_sommari WHERE chiave='fuso'");
    c.commit();
  }
  Accumulo acc(z);
  std::int64_t fino_a = 0;
  {
    // One snapshot, so that the rows read and the journal up to `fino_a` tell the same story.
    Connessione c = _db();
    c.esegui("BEGIN");
    fino_a =
        come_intero(c.righe("SELECT COALESCE(MAX(id), 0) FROM nvr_reg_variazioni").at(0).at(0));
    c.scorri("SELECT cam_id, inizio, fine, dimensione, file FROM nvr_registrazioni", {},
             [&](const Riga& r) { acc.aggiungi(1, r[0], r[1], r[2], r[3], r[4]); });
    c.commit();
  }
  Connessione c = _db();
  prendi_scrittura(c);
  c.esegui("DELETE FROM nvr_reg_giorni");
  std::vector<std::vector<Valore>> lotti;
  lotti.reserve(acc.giorni.size());
  for (const auto& [chiave, x] : acc.giorni)
    lotti.push_back({std::int64_t{chiave.first}, chiave.second, x.n, x.byte, x.sec});
  c.esegui_molti("INSERT INTO nvr_reg_giorni (cam_id, giorno, n, byte, sec) VALUES (?,?,?,?,?)",
                 lotti);
  c.esegui("DELETE FROM nvr_reg_cartelle");
  lotti.clear();
  for (const auto& [cartella, x] : acc.cartelle)
    lotti.push_back({cartella, x.n, come_firma(x.firma)});
  c.esegui_molti("INSERT INTO nvr_reg_cartelle (cartella, n, firma) VALUES (?,?,?)", lotti);
  c.esegui("DELETE FROM nvr_reg_variazioni WHERE id <= ?", {fino_a});
  c.esegui("INSERT OR REPLACE INTO nvr_reg_sommari (chiave, valore) VALUES ('fuso', ?)",
           {nome_zona(z)});
  c.commit();
}

void costruisci_sommari_in_fondo() {
  if (in_costruzione.exchange(true)) return;
  try {
    std::thread([] {
      try {
        const Zona z = _fuso();
        bool pronti = false;
        {
          Connessione c = _db();
          pronti = zona_dei_sommari(c) == nome_zona(z);
        }
        if (!pronti) costruisci_sommari(z);
        // Only once the overview no longer needs the old way of answering: the indexes an
        // older version left take seconds to drop on a large index.
        togli_indici_superati();
      } catch (const std::exception& e) {
        _log(std::string("riepilogo dell'archivio non preparato: ") + e.what());
      } catch (...) {
        _log("riepilogo dell'archivio non preparato");
      }
      in_costruzione = false;
    }).detach();
  } catch (const std::system_error&) {
    in_costruzione = false;  // no thread now: the next overview asks again
  }
}

}  // namespace nvr

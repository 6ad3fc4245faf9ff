// Listing the drives from lsblk and finding one again.
#include "storage/usb.h"

#include <cmath>

#include "core/processo.h"
#include "storage/comando.h"
#include "storage/testi.h"

namespace nvr {

namespace {

// A field of an lsblk node as text: "" when absent or null.
std::string testo(const Json& nodo, const std::string& chiave) {
  const Json& v = campo(nodo, chiave);
  if (v.is_null()) return "";
  return testo_di(v);
}

// lsblk prints its flags as JSON booleans; versions before 2.33 printed "1" and "0".
bool vero(const Json& nodo, const std::string& chiave) {
  const Json& v = campo(nodo, chiave);
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_string())
    return v.get_ref<const std::string&>() == "1" || v.get_ref<const std::string&>() == "true";
  return false;
}

// GB of 10^9 bytes with one decimal, a half going to the even neighbour (the default rounding
// mode, which nothing in the recorder changes).
double gb_un_decimale(double byte) { return std::nearbyint(byte / 1e8) / 10.0; }

struct Ereditati {
  bool rimovibile = false;
  std::string modello;
  std::string vendor;
};

bool di_sistema(const std::string& mp) {
  return mp == "/" || mp == "/boot" || mp == "/boot/firmware";
}

void visita(const Json& nodo, const Ereditati& padre, std::vector<Unita>& fuori) {
  if (!nodo.is_object()) return;
  Ereditati miei;
  miei.rimovibile =
      vero(nodo, "rm") || vero(nodo, "hotplug") || testo(nodo, "tran") == "usb" || padre.rimovibile;
  miei.modello = spoglia(pieno(campo(nodo, "model")) ? testo(nodo, "model") : padre.modello);
  miei.vendor = spoglia(pieno(campo(nodo, "vendor")) ? testo(nodo, "vendor") : padre.vendor);

  std::string fs = testo(nodo, "fstype");
  if (testo(nodo, "type") == "part" && miei.rimovibile && !fs.empty() && fs != "swap" &&
      fs != "LVM2_member") {
    Unita u;
    std::string nome = testo(nodo, "name");
    u.dev = pieno(campo(nodo, "path")) ? testo(nodo, "path") : "/dev/" + nome;
    u.etichetta = testo(nodo, "label");
    u.nome = u.etichetta.empty() ? nome : u.etichetta;
    u.uuid = testo(nodo, "uuid");
    u.partuuid = testo(nodo, "partuuid");
    u.fs = fs;
    u.dimensione_gb = gb_un_decimale(static_cast<double>(intero(campo(nodo, "size")).value_or(0)));
    u.mountpoint = testo(nodo, "mountpoint");
    u.montata = !u.mountpoint.empty() && u.mountpoint != "[SWAP]";
    u.modello = spoglia(miei.vendor + " " + miei.modello);
    u.sistema = di_sistema(u.mountpoint);
    fuori.push_back(std::move(u));
  }
  const Json& figli = campo(nodo, "children");
  if (figli.is_array())
    for (const Json& f : figli) visita(f, miei, fuori);
}

}  // namespace

Json Unita::come_json() const {
  return Json{{"dev", dev},
              {"nome", nome},
              {"etichetta", etichetta},
              {"uuid", uuid},
              {"partuuid", partuuid},
              {"fs", fs},
              {"dimensione_gb", dimensione_gb},
              {"montata", montata},
              {"mountpoint", mountpoint},
              {"modello", modello},
              {"sistema", sistema},
              {"spazio", spazio ? spazio->come_json() : Json()}};
}

std::vector<Unita> _leggi_lsblk(const Json& uscita) {
  std::vector<Unita> tutte;
  const Json& dispositivi = campo(uscita, "blockdevices");
  if (dispositivi.is_array())
    for (const Json& d : dispositivi) visita(d, Ereditati{}, tutte);
  std::vector<Unita> fuori;
  for (Unita& u : tutte)
    if (!u.sistema) fuori.push_back(std::move(u));
  return fuori;
}

std::vector<Unita> _unita_lsblk() {
  if (!programma_presente("lsblk")) return {};
  RisultatoComando r =
      _comando({"lsblk", "-J", "-b", "-o",
                "NAME,PATH,SIZE,TYPE,MOUNTPOINT,LABEL,FSTYPE,RM,TRAN,HOTPLUG,MODEL,VENDOR,UUID,"
                "PARTUUID"},
               10);
  if (r.codice != 0) return {};
  std::optional<Json> uscita = leggi_json(r.out);
  if (!uscita) return {};
  return _leggi_lsblk(*uscita);
}

std::optional<Unita> _trova_unita(const std::string& dev, const std::string& uuid,
                                  const std::string& etichetta) {
  std::vector<Unita> elenco = _unita_presenti();

  // The UUID first: a re-plugged drive keeps it but may come back under another device name.
  // A stored UUID may be either kind, so it is also tried as the partition's.
  const std::pair<std::string Unita::*, const std::string*> chiavi[] = {
      {&Unita::uuid, &uuid},
      {&Unita::partuuid, &uuid},
      {&Unita::etichetta, &etichetta},
      {&Unita::dev, &dev},
  };
  for (const auto& [membro, voluto] : chiavi) {
    if (voluto->empty()) continue;
    for (const Unita& u : elenco)
      if (u.*membro == *voluto) return u;
  }
  return std::nullopt;
}

}  // namespace nvr

// The configuration record and the per-camera recording settings, stored in the shared database.
//
// Every call opens and closes its own connection; there is no cache, so each engine pass and
// each request sees the last saved values. Database failures throw ErroreDb (core/db.h) after
// the connection is closed; unreadable stored texts never fail a read.
#pragma once

#include <string>
#include <vector>

#include "core/json.h"
#include "core/stato.h"

namespace nvr {

struct Config {
  int attivo = 0;                             // 1: recording switched on system-wide
  std::string cartella;                       // the archive folder
  Json destinazione = Json::object();         // where the folder lives: tipo "usb", "rete" or local
  int segmento_sec = 300;                     // segment length, seconds
  int giorni = 14;                            // retention, days
  double spazio_min_gb = 2.0;                 // free space to keep, GB

  // {attivo, cartella, destinazione, segmento_sec, giorni, spazio_min_gb}, destinazione whole.
  Json come_json() const;
};

struct Camera {
  CamId id = 0;
  std::string nome;
  std::string url;
  bool attiva = false;
  std::string modo = "sempre";
  Json orari = Json::array();   // schedule entries, objects with at least "da" and "a"
  Json eventi = Json::array();  // trigger entity ids (texts)
  int post_roll = 30;           // seconds of recording after the last trigger

  Json come_json() const;  // {id, nome, url, attiva, modo, orari, eventi, post_roll}
};

// The configuration; the defaults when the row is missing. Stored null or zero numbers read
// back as their defaults (a stored segmento_sec 0 reads 300). A destinazione that is not JSON
// reads as an empty object; one that is JSON but not an object is returned as it is.
Config leggi_config();

// Stores `cfg` in the single row. Empty values take their defaults; no range checks (those
// belong to the configuration API). destinazione is stored with non-ASCII characters kept.
void _salva_config(const Config& cfg);

// One record per camera of the host's table, in ascending id order, merged with the recorder's
// settings (the defaults for a camera without settings). Settings of cameras the host no longer
// has are kept in the table but not returned.
std::vector<Camera> _telecamere();

// Normalises and stores the settings `imp` of camera `cam_id` (whether the host knows it or
// not): orari keeps only objects with non-empty "da" and "a"; eventi drops empty ids and keeps
// the others as texts; an unknown modo becomes "sempre"; post_roll empty -> 30, then clamped to
// 0..3600. Throws std::invalid_argument when post_roll is not a number at all.
void _salva_camera(CamId cam_id, const Json& imp);

// The configuration as it may leave the system: destinazione without its password.
Json _config_pubblica(const Config& cfg);

// The camera's folder in the older flat archive layout: <cartella>/cam_<id>.
std::string _cartella_legacy(const Config& cfg, const Camera& cam);

}  // namespace nvr

#include "engine/piano_giro.h"

#include <gtest/gtest.h>

#include "archive/posizione.h"

namespace nvr {
namespace {

constexpr double T = 1'000'000.0;

Camera camera(CamId id, bool attiva = true, std::string url = "rtsp://x/y") {
  return {.id = id, .nome = "Cam" + std::to_string(id), .url = std::move(url), .attiva = attiva};
}

// Recording on, archive ready, ffmpeg present, every job just run.
Situazione base() {
  Situazione s;
  s.cfg.attivo = true;
  s.cfg.cartella = "/arch";
  s.cfg.segmento_sec = 300;
  s.adesso = T;
  s.tempi = {T, T, T, T};
  return s;
}

VistaRegistratore in_corso(const Situazione& s, const Camera& c) {
  return {_cartella_in_corso(s.cfg, c, s.cams), 300};
}

Azione ferma(CamId id, std::string perche) { return {id, Mossa::ferma, "", std::move(perche)}; }

TEST(PianoGiroTest, RecordingOffArchiveMissingOrNoFfmpegStopEverythingOrNothing) {
  Situazione s = base();
  s.cams = {camera(1), camera(2)};
  s.registratori = {{1, in_corso(s, s.cams[0])}, {2, in_corso(s, s.cams[1])}};
  s.decisioni = {{1, {true, "continua"}}, {2, {true, "continua"}}};

  Situazione spento = s;
  spento.cfg.attivo = false;
  PianoGiro p = pianifica_giro(spento);
  EXPECT_EQ(p.azioni,
            (std::vector<Azione>{ferma(1, "NVR disattivato"), ferma(2, "NVR disattivato")}));
  EXPECT_EQ(p.problema, "");

  Situazione assente = s;
  assente.non_pronto = "Unita' USB non collegata: x";
  assente.tempi = {};
  p = pianifica_giro(assente);
  EXPECT_EQ(p.azioni,
            (std::vector<Azione>{ferma(1, assente.non_pronto), ferma(2, assente.non_pronto)}));
  EXPECT_EQ(p.problema, assente.non_pronto);
  EXPECT_EQ(p.log_problema, assente.non_pronto);
  EXPECT_EQ(p.lavori, Lavori{}) << "no job touches an archive that is not there";

  Situazione senza = s;
  senza.ffmpeg = false;
  senza.tempi = {};
  p = pianifica_giro(senza);
  EXPECT_TRUE(p.azioni.empty()) << "the recorders already running keep going";
  EXPECT_EQ(p.problema, "ffmpeg non installato");
  EXPECT_EQ(p.log_problema, "ffmpeg non installato: nessuna registrazione");
  EXPECT_EQ(p.lavori, Lavori{});
}

TEST(PianoGiroTest, EachCameraStartsStopsOrKeepsItsRecorder) {
  Situazione s = base();
  s.cams = {camera(1), camera(2, false), camera(3, true, ""), camera(4), camera(5), camera(6)};
  for (CamId id : {2, 3, 4, 5, 9}) s.registratori[id] = in_corso(s, camera(id));
  s.decisioni = {{1, {true, "orario"}}, {4, {false, ""}}, {5, {true, "evento"}}, {6, {false, ""}}};
  PianoGiro p = pianifica_giro(s);
  EXPECT_EQ(p.azioni, (std::vector<Azione>{
                          ferma(9, "telecamera rimossa"),
                          {1, Mossa::avvia, "orario", ""},
                          ferma(2, "telecamera disattivata"),
                          ferma(3, "telecamera disattivata"),
                          ferma(4, "fuori orario/evento finito"),
                          {5, Mossa::conferma, "evento", ""},
                      }));
  EXPECT_EQ(p.problema, "");
}

TEST(PianoGiroTest, RunningRecorderRestartsWhenFolderOrSegmentLengthChange) {
  Situazione s = base();
  s.cams = {camera(1)};
  s.decisioni = {{1, {true, "continua"}}};
  VistaRegistratore prima = in_corso(s, s.cams[0]);
  struct Caso {
    std::string cartella;
    int segmento;
    Mossa mossa;
    std::string perche;
    bool cambiata;
  } casi[] = {
      {"/arch", 300, Mossa::conferma, "", false},
      {"/arch", 60, Mossa::riavvia, "nuova durata degli spezzoni", false},
      {"/altrove", 300, Mossa::riavvia, "cartella cambiata", true},
      {"/altrove", 60, Mossa::riavvia, "nuova durata degli spezzoni", true},
  };
  for (const Caso& c : casi) {
    s.cfg.cartella = c.cartella;
    s.cfg.segmento_sec = c.segmento;
    s.registratori = {{1, prima}};
    PianoGiro p = pianifica_giro(s);
    Azione attesa{1, c.mossa, "continua", c.perche, c.cambiata};
    EXPECT_EQ(p.azioni, std::vector<Azione>{attesa}) << c.cartella << " " << c.segmento;
  }
  // A record without a folder (a recorder started before the folder was known) is not drained.
  s.registratori = {{1, {"", 300}}};
  EXPECT_FALSE(pianifica_giro(s).azioni.at(0).cartella_cambiata);
  // Segment length 0 means 300.
  s.cfg.cartella = "/arch";
  s.cfg.segmento_sec = 0;
  s.registratori = {{1, prima}};
  EXPECT_EQ(pianifica_giro(s).azioni.at(0).mossa, Mossa::conferma);
}

TEST(PianoGiroTest, FailedCameraWaitsFiveSecondsPerFailureUpToAMinute) {
  struct Caso {
    int n;
    double fa;
    bool parte;
  } casi[] = {
      {1, 4.9, false},   {1, 5.0, true},   {3, 14.9, false},  {3, 15.0, true},
      {12, 59.9, false}, {12, 60.0, true}, {40, 59.9, false}, {40, 60.0, true},
  };
  Situazione s = base();
  s.cams = {camera(1)};
  s.decisioni = {{1, {true, "continua"}}};
  for (const Caso& c : casi) {
    s.errori = {{1, ErroreRecente{c.n, "Connection refused", T - c.fa}}};
    EXPECT_EQ(pianifica_giro(s).azioni.size(), c.parte ? 1u : 0u) << c.n << " guasti, " << c.fa;
  }
}

TEST(PianoGiroTest, PeriodicJobsFallDueByTheirOwnClocks) {
  struct Caso {
    bool attivo;
    std::string cartella;
    TempiLavori tempi;  // how long ago each job ran
    Lavori attesi;
  } casi[] = {
      {true, "/a", {0, 0, 0, 0}, {}},
      {true, "/a", {10, 600, 300, 3600}, {}},
      {true, "/a", {10.5, 600, 300, 3600}, {true, false, false, false}},
      {true, "/a", {10.5, 600.5, 300.5, 3600.5}, {true, true, true, true}},
      {true, "/a", {1, 900, 1, 1}, {false, false, false, false}},
      {false, "/a", {11, 601, 301, 3601}, {true, true, false, false}},
      {false, "", {11, 601, 301, 3601}, {}},
  };
  for (const Caso& c : casi) {
    Situazione s = base();
    s.cfg.attivo = c.attivo;
    s.cfg.cartella = c.cartella;
    s.tempi = {T - c.tempi.indice, T - c.tempi.profondo, T - c.tempi.allineamento,
               T - c.tempi.pulizia};
    Lavori l = pianifica_giro(s).lavori;
    EXPECT_EQ(l, c.attesi) << c.attivo << " " << c.tempi.indice << " " << c.tempi.profondo;
  }
  // At start every stamp is 0: everything runs at the first pass.
  Situazione s = base();
  s.tempi = {};
  EXPECT_EQ(pianifica_giro(s).lavori, (Lavori{true, true, true, true}));
}

}  // namespace
}  // namespace nvr

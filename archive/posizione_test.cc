#include "archive/posizione.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/stato.h"
#include "testing/ambiente.h"
#include "testing/processi.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::HostDiProva;
using testing::leggi_file;
using testing::scrivi_file;

Camera camera(CamId id, const std::string& nome) {
  Camera c;
  c.id = id;
  c.nome = nome;
  return c;
}

class PosizioneTest : public ::testing::Test {
 protected:
  void SetUp() override { h.imposta_zona("Europe/Rome"); }

  // 2024-05-01 23:59:58.9 in Rome (21:59:58.9 UTC): the last seconds of the day.
  double quasi_mezzanotte() { return 1714600798.9; }

  HostDiProva h;
  CartellaTemporanea radice;
};

TEST_F(PosizioneTest, CameraFolderNamesAreSafeAndApart) {
  const std::vector<Camera> cams = {camera(3, "Garage"), camera(7, "garage"),
                                    camera(8, "Porta d'ingresso"), camera(10, "///"),
                                    camera(13, "Cucina!"), camera(14, "Cucina")};
  struct Caso {
    Camera cam;
    std::vector<Camera> cams;
    std::string atteso;
  };
  const Caso casi[] = {
      {cams[0], cams, "Garage_3"},
      {cams[0], {cams[0], cams[2]}, "Garage"},
      {cams[2], cams, "Porta_d_ingresso"},
      {cams[3], cams, "telecamera_10"},  // nothing usable in the name
      {cams[4], cams, "Cucina_13"},      // different display names, same safe name
      // Only another id counts as a clash, not the camera's own older record.
      {camera(3, "Garage"), {camera(3, "garage")}, "Garage"},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.cam.nome + " #" + std::to_string(c.cam.id));
    EXPECT_EQ(_nome_cartella_cam(c.cam, c.cams), c.atteso);
  }
}

// Moved (after midnight, as it happens) into the day of its start; segments of the same second
// get numbered names.
TEST_F(PosizioneTest, SegmentsAreMovedIntoTheDayOfTheirStartUnderFreeNames) {
  const std::string cam = radice / "Garage";
  const double inizio = quasi_mezzanotte();
  const char* attesi[] = {"23-59-58.mp4", "23-59-58_1.mp4"};
  ::testing::internal::CaptureStdout();
  for (int i = 0; i < 2; ++i) {
    std::string sorgente = cam + "/in_corso/seg" + std::to_string(i) + ".mp4";
    scrivi_file(sorgente, std::to_string(i));
    auto dove = _sposta_spezzone(sorgente, cam, inizio);
    ASSERT_TRUE(dove);
    EXPECT_EQ(*dove, cam + "/2024-05-01/" + attesi[i]);
    EXPECT_FALSE(fs::exists(sorgente));
  }
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(leggi_file(cam + "/2024-05-01/" + attesi[i]), std::to_string(i));  // none overwritten

  // A folder standing at a name takes it as much as a file does.
  fs::create_directories(cam + "/2024-05-01/23-59-58_2.mp4");
  EXPECT_EQ(_destinazione_spezzone(cam, inizio), cam + "/2024-05-01/23-59-58_3.mp4");
}

TEST_F(PosizioneTest, UnmovableSegmentStaysAndIsReportedOnce) {
  const std::string cam = radice / "Garage";
  const std::string sorgente = cam + "/in_corso/20240501_235958.mp4";
  scrivi_file(sorgente, "x");
  scrivi_file(cam + "/2024-05-01", "un file dove andrebbe la cartella del giorno");

  ::testing::internal::CaptureStdout();
  auto dove = _sposta_spezzone(sorgente, cam, quasi_mezzanotte());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] spezzone 20240501_235958.mp4 non spostato in " + cam +
                "/2024-05-01: Not a directory (resta dov'e', in elenco lo stesso)\n");
  EXPECT_EQ(dove, sorgente);
  EXPECT_EQ(leggi_file(sorgente), "x");

  // The index remembers the stuck file; the next attempt fails the same way in silence.
  segna_non_spostabile(sorgente, true);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(_sposta_spezzone(sorgente, cam, quasi_mezzanotte()), sorgente);
  // A segment that vanished is reported as gone, in silence too.
  EXPECT_EQ(_sposta_spezzone(cam + "/in_corso/sparito.mp4", cam, 0), std::nullopt);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

// Emptied day and camera folders going while the root and in_corso stay are the deletion's and
// retention's tests (web/api_elimina_test.cc, archive/pulizia_test.cc); here what lies outside.
TEST_F(PosizioneTest, TidyingUpNeverLeavesTheRoot) {
  // After removing `percorso` under root "arch" (with `cartelle` made first, and a link to a
  // folder when named), `resta` must still be a folder.
  auto prova = [](const char* nome, std::vector<std::string> cartelle,
                  std::pair<std::string, std::string> collegamento, const std::string& percorso,
                  const std::string& resta) {
    SCOPED_TRACE(nome);
    CartellaTemporanea t;
    for (const auto& d : cartelle) fs::create_directories(t / d);
    if (!collegamento.first.empty())
      fs::create_directory_symlink(t / collegamento.second, t / collegamento.first);
    _togli_cartelle_vuote(t / percorso, t / "arch");
    EXPECT_TRUE(fs::is_directory(t / resta));
  };
  prova("a sibling whose name starts like the root is outside", {"arch", "arch2/Garage/2024-05-01"},
        {}, "arch2/Garage/2024-05-01/12-00-00.mp4", "arch2/Garage/2024-05-01");
  prova("a camera folder linked to elsewhere is outside", {"arch", "altrove/2024-05-01"},
        {"arch/Garage", "altrove"}, "arch/Garage/2024-05-01/12-00-00.mp4", "altrove/2024-05-01");
  prova("a root that does not exist", {"Garage/2024-05-01"}, {}, "Garage/2024-05-01/12-00-00.mp4",
        "Garage/2024-05-01");
}

}  // namespace
}  // namespace nvr

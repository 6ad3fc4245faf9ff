// Segment moves on a drive that the kernel has turned read-only, as after a file-system error.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>

#include "core/stato.h"
#include "core/tempo.h"
#include "archive/posizione.h"
#include "storage/comando.h"
#include "testing/ambiente.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::HostDiProva;

TEST(PosizioneRootTest, ReadOnlyDriveKeepsTheSegmentInPlace) {
  if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount di un tmpfs)";
  HostDiProva h;
  h.imposta_zona("UTC");
  CartellaTemporanea t;
  const std::string cam = t / "Garage";
  fs::create_directories(cam);
  ASSERT_EQ(::mount("tmpfs", cam.c_str(), "tmpfs", 0, "size=1m"), 0) << "tmpfs non montabile";
  const std::string sorgente = cam + "/in_corso/20240501_120000.mp4";
  testing::scrivi_file(sorgente, "x");
  fs::create_directories(cam + "/2024-05-01");
  ASSERT_EQ(::mount(nullptr, cam.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);

  // The day folder is there: the rename itself is what fails.
  ::testing::internal::CaptureStdout();
  auto dove = _sposta_spezzone(sorgente, cam, 1714564800.0);  // 2024-05-01 12:00:00 UTC
  std::string uscita = ::testing::internal::GetCapturedStdout();
  // A day whose folder does not exist yet: creating it fails.
  ::testing::internal::CaptureStdout();
  auto dove2 = _sposta_spezzone(sorgente, cam, 1714694400.0);  // 2024-05-03 00:00:00 UTC
  std::string uscita2 = ::testing::internal::GetCapturedStdout();
  ASSERT_EQ(::umount(cam.c_str()), 0);

  EXPECT_EQ(dove, sorgente);
  EXPECT_EQ(uscita, "[NVR] spezzone 20240501_120000.mp4 non spostato in " + cam +
                        "/2024-05-01: Read-only file system (resta dov'e', in elenco lo stesso)\n");
  EXPECT_EQ(dove2, sorgente);
  EXPECT_EQ(uscita2,
            "[NVR] spezzone 20240501_120000.mp4 non spostato in " + cam +
                "/2024-05-03: Read-only file system (resta dov'e', in elenco lo stesso)\n");
}

}  // namespace
}  // namespace nvr

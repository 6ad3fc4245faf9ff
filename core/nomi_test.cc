#include "core/nomi.h"

#include <gtest/gtest.h>

#include "core/log.h"

namespace nvr {
namespace {

TEST(NomeSicuroTest, NamesBecomeSingleSafeFolderNames) {
  const std::pair<const char*, const char*> casi[] = {
      {"Garage", "Garage"},
      {"Porta d'ingresso", "Porta_d_ingresso"},
      {"  Cucina  ", "Cucina"},
      {"", "unita"},
      {"///", "unita"},
      {"._.", "unita"},
      {"..", "unita"},
      {"../x", "x"},
      {"/etc/passwd", "etc_passwd"},
      {"Entrata è bella!", "Entrata_bella"},
      {"è", "unita"},
      {"cam.v2-nord_", "cam.v2-nord"},
      {"a\tb\nc", "a_b_c"},
  };
  for (const auto& [dentro, fuori] : casi) {
    SCOPED_TRACE(dentro);
    EXPECT_EQ(_nome_sicuro(dentro), fuori);
  }
}

TEST(LogTest, TextIsPrintedAsItIs) {
  ::testing::internal::CaptureStdout();
  _log("100% {0} %s %d");
  _log("");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[NVR] 100% {0} %s %d\n[NVR] \n");
}

}  // namespace
}  // namespace nvr

#include "engine/registratori.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "core/log.h"
#include "core/tempo.h"
#include "testing/azzera.h"
#include "testing/ambiente.h"
#include "testing/processi.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::leggi_file;
using testing::scrivi_file;
using testing::VariabileDiProva;
using Argomenti = std::vector<std::string>;

double secondi_da(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Every test gets its own temporary directory, hence its own recorder logs.
class RegistratoriTest : public ::testing::Test {
 protected:
  void SetUp() override { azzera_stato_per_test(); }
  void TearDown() override {
    _ferma_tutto();
    azzera_stato_per_test();
  }

  // A record as _avvia makes it, for a real child running `argomenti` with its standard error in
  // camera `cid`'s log.
  Registratore registratore(CamId cid, const Argomenti& argomenti, int errori = 0) {
    int fd = ::open(_log_ffmpeg(cid).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    EXPECT_GE(fd, 0);
    auto proc = avvia_processo(Avvio{.argomenti = argomenti, .fd_stderr = fd});
    EXPECT_TRUE(proc.ok());
    Registratore r;
    r.proc = proc.ok() ? proc.valore() : nullptr;
    r.log = std::make_shared<FileLog>(fd);
    r.da = _ora();
    r.errori = errori;
    return r;
  }

  // An older ffmpeg cannot be installed next to Debian's, so a script that answers like one
  // stands in for it: it writes down its arguments, complains on standard error and fails.
  // Answers the folder to put first on PATH.
  std::string ffmpeg_finto() {
    std::string bin = tmp_ / "bin";
    std::string finto = bin + "/ffmpeg";
    scrivi_file(
        finto,
        "#!/bin/sh\n"
        "if [ \"$1\" = -version ]; then echo 'ffmpeg version n4.4.2 Copyright'; exit 0; fi\n"
        "printf '%s\\n' \"$@\" > \"$(dirname \"$0\")/argomenti\"\n"
        "echo 'prima riga' >&2; echo '  finto: flusso assente  ' >&2; echo >&2\n"
        "exit 1\n");
    fs::permissions(finto, fs::perms::owner_all);
    return bin;
  }

  CartellaTemporanea tmp_;
  VariabileDiProva tmpdir_{"TMPDIR", tmp_.percorso()};
};

using ArgomentiTest = RegistratoriTest;

TEST_F(ArgomentiTest, ExactListForEachKindOfStream) {
  const Argomenti rtsp5 = {"-rtsp_transport", "tcp", "-timeout", "5000000"};
  const Argomenti rtsp4 = {"-rtsp_transport", "tcp", "-stimeout", "5000000"};
  struct Caso {
    std::string url;
    int segmento;
    std::string cartella;
    int major;
    Argomenti opzioni;
    std::string durata;
    std::string uscita;
  };
  const Caso casi[] = {
      {"rtsp://127.0.0.1:8554/cam", 60, "/a/Ingresso/in_corso", 5, rtsp5, "60",
       "/a/Ingresso/in_corso/%Y%m%d_%H%M%S.mp4"},
      {"RTSPS://127.0.0.1/x", 10, "/a/b/", 6, rtsp5, "10", "/a/b/%Y%m%d_%H%M%S.mp4"},
      {"rtsp://127.0.0.1/x", 0, "/a", 4, rtsp4, "300", "/a/%Y%m%d_%H%M%S.mp4"},
      {"http://127.0.0.1/video", 10, "/a", 4, {}, "10", "/a/%Y%m%d_%H%M%S.mp4"},
  };
  for (const auto& c : casi) {
    SCOPED_TRACE(c.url);
    Argomenti attesi = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y"};
    attesi.insert(attesi.end(), c.opzioni.begin(), c.opzioni.end());
    attesi.insert(attesi.end(), {"-i", c.url, "-map", "0:v:0", "-c:v", "copy", "-an", "-f",
                                 "segment", "-segment_time", c.durata, "-segment_format", "mp4",
                                 "-reset_timestamps", "1", "-strftime", "1", c.uscita});
    EXPECT_EQ(argomenti_ffmpeg(c.url, c.segmento, c.cartella, c.major), attesi);
  }
}

TEST(VersioneTest, MajorFromVersionOutput) {
  const std::pair<const char*, int> casi[] = {
      {"ffmpeg version n4.4.2 Copyright (c) 2000-2021 the FFmpeg developers", 4},
      {"ffmpeg version 6.1 Copyright (c) 2000-2023", 6},
      {"ffmpeg version 5.1.9-0+deb12u1 Copyright (c) 2000-2026\nbuilt with gcc 12", 5},
      {"libavutil 56.70.100\nffmpeg version 4.2.7-0ubuntu0.1", 4},
      {"ffmpeg version N-113245-g1a2b3c4d", 5},
      {"ffmpeg version 99999999999999999999.1", 5},
      {"FFmpeg version 4.1", 5},
      {"ffmpeg version x\nffmpeg version 3.4.8", 3},
      {"", 5},
  };
  for (const auto& [uscita, major] : casi) {
    SCOPED_TRACE(uscita);
    EXPECT_EQ(major_da_versione(uscita), major);
  }
}

using VersioneInstallataTest = RegistratoriTest;

TEST_F(VersioneInstallataTest, AskedOnceAndPicksTheTimeOutOption) {
  const std::string bin = ffmpeg_finto();
  const std::string finto = bin + "/ffmpeg";
  VariabileDiProva path("PATH", bin + ":/usr/bin:/bin");

  const Config cfg{.cartella = tmp_ / "archivio", .segmento_sec = 0};
  const Camera cam{.id = 4, .nome = "Vecchia", .url = "rtsp://127.0.0.1:9/x"};
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(_avvia(cfg, cam, "orario"), std::make_pair(true, std::string()));
  std::optional<Registratore> avviato = registratore_di(4);
  ASSERT_TRUE(avviato);
  std::shared_ptr<Processo> proc = avviato->proc;
  ASSERT_TRUE(proc->attendi(10));
  _controlla_processi();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] Vecchia: registrazione avviata (orario)\n"
            "[NVR] telecamera 4: ffmpeg terminato: finto: flusso assente\n");
  const std::string argomenti = leggi_file(bin + "/argomenti");
  EXPECT_NE(argomenti.find("\n-stimeout\n"), std::string::npos) << argomenti;
  EXPECT_NE(argomenti.find("\n-segment_time\n300\n"), std::string::npos) << argomenti;
  EXPECT_NE(argomenti.find(tmp_ / "archivio/Vecchia/in_corso/%Y"), std::string::npos) << argomenti;
  EXPECT_EQ(errori_recenti()[4].testo, "finto: flusso assente");

  // Cached: a newer ffmpeg installed meanwhile is not asked again.
  scrivi_file(finto, "#!/bin/sh\necho 'ffmpeg version 6.1'\n");
  EXPECT_EQ(_ffmpeg_major(), 4);
}

using AvviaTest = RegistratoriTest;

TEST_F(AvviaTest, RefusalsComeAfterTheFolderAndStartNothing) {
  Config cfg{.cartella = tmp_ / "archivio"};
  Camera cam;
  cam.id = 3;
  cam.nome = "Cortile";
  const std::string cart = tmp_ / "archivio/Cortile/in_corso";
  ::testing::internal::CaptureStdout();
  for (const char* url : {"udp://127.0.0.1:1234", "", "rtsp:/127.0.0.1/x", "file:///etc/passwd"}) {
    SCOPED_TRACE(url);
    cam.url = url;
    fs::remove_all(tmp_ / "archivio");
    EXPECT_EQ(_avvia(cfg, cam, "continua"),
              std::make_pair(false, std::string("Indirizzo del flusso non valido")));
    EXPECT_TRUE(fs::is_directory(cart));
  }

  // Without ffmpeg on PATH the process cannot start; nothing is left behind but the folder.
  {
    VariabileDiProva path("PATH", tmp_ / "vuota");
    cam.url = "http://127.0.0.1/video";
    EXPECT_EQ(_avvia(cfg, cam, "continua"),
              std::make_pair(false, std::string("ffmpeg non parte: No such file or directory")));
  }

  // A file where the archive should be.
  scrivi_file(tmp_ / "file", "x");
  cfg.cartella = tmp_ / "file";
  cam.url = "rtsp://127.0.0.1/x";
  auto [ok, msg] = _avvia(cfg, cam, "continua");
  EXPECT_FALSE(ok);
  const std::string prefisso = "Cartella " + tmp_ / "file/Cortile/in_corso" + " non scrivibile: ";
  EXPECT_EQ(msg.substr(0, prefisso.size()), prefisso);
  EXPECT_GT(msg.size(), prefisso.size());

  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(registratori_in_corso().empty());
  EXPECT_TRUE(errori_recenti().empty());
}

using LogTest = RegistratoriTest;

// The log folder is in the shared temporary directory, where anyone may plant a link.
TEST_F(LogTest, ALinkInPlaceOfTheLogIsNotFollowed) {
  const std::string segreto = tmp_ / "segreto";
  scrivi_file(segreto, "riga riservata\n");
  fs::create_symlink(segreto, _log_ffmpeg(9));
  EXPECT_EQ(_ultima_riga_log(9), "");

  VariabileDiProva path("PATH", ffmpeg_finto() + ":/usr/bin:/bin");
  const Config cfg{.cartella = tmp_ / "archivio"};
  Camera cam;
  cam.id = 9;
  cam.url = "http://127.0.0.1:9/video";
  ASSERT_EQ(_avvia(cfg, cam, "continua"), std::make_pair(true, std::string()));
  std::optional<Registratore> avviato = registratore_di(9);
  ASSERT_TRUE(avviato);
  EXPECT_FALSE(avviato->log);
  std::shared_ptr<Processo> proc = avviato->proc;
  ASSERT_TRUE(proc->attendi(10));
  _controlla_processi();
  EXPECT_EQ(leggi_file(segreto), "riga riservata\n");
  EXPECT_EQ(errori_recenti()[9].testo, "ffmpeg terminato (codice 1)");
}

TEST_F(LogTest, LastNonBlankLineOfTheTail) {
  std::string e200;
  for (int i = 0; i < 200; ++i) e200 += "è";
  const std::pair<std::string, std::string> casi[] = {
      {"prima\nerrore finale\n\n   \n\t\n", "errore finale"},
      {"a\rb\r", "b"},
      {"\n \n\t\r\n", ""},
      {std::string(250, 'x') + "\n", std::string(200, 'x')},
      {e200 + "è\n", e200},
      // The tail of 4000 characters starts inside the word.
      {"importante\n" + std::string(3995, ' '), "ante"},
      {"errore \xff\xfe fine\n", "errore \xEF\xBF\xBD\xEF\xBF\xBD fine"},
      {"tronco \xC3", "tronco \xEF\xBF\xBD"},
  };
  const std::string log = _log_ffmpeg(8);
  EXPECT_EQ(log, tmp_ / ("zuna_nvr_" + std::to_string(::getuid()) + "/ffmpeg_8.log"));
  struct stat st;
  ASSERT_EQ(::stat(fs::path(log).parent_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  for (const auto& [contenuto, riga] : casi) {
    SCOPED_TRACE(contenuto.substr(0, 40));
    scrivi_file(log, contenuto);
    EXPECT_EQ(_ultima_riga_log(8), riga);
  }
  fs::remove(log);
  EXPECT_EQ(_ultima_riga_log(8), "");
  fs::create_directory(log);  // unreadable as a file
  EXPECT_EQ(_ultima_riga_log(8), "");
}

using ControllaTest = RegistratoriTest;

TEST_F(ControllaTest, EndedRecordersLeaveWithTheirReason) {
  struct Caso {
    CamId cid;
    Argomenti argomenti;
    int errori;
    ErroreRecente atteso;  // n and testo
  };
  // Neither leaves a line in its log.
  const Caso casi[] = {
      {31, {"sh", "-c", "exit 3"}, 0, {1, "ffmpeg terminato (codice 3)"}},
      {33, {"sh", "-c", "kill -9 $$"}, 2, {3, "ffmpeg terminato (codice -9)"}},
  };
  std::vector<std::shared_ptr<FileLog>> logs;
  for (const auto& c : casi) {
    Registratore r = registratore(c.cid, c.argomenti, c.errori);
    ASSERT_TRUE(r.proc->attendi(10));
    logs.push_back(r.log);
    adotta_registratore(c.cid, r);
  }
  Registratore vivo = registratore(34, {"sleep", "60"});
  adotta_registratore(34, vivo);

  double t0 = _ora();
  ::testing::internal::CaptureStdout();
  _controlla_processi();
  _controlla_processi();  // nothing ends twice
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] telecamera 31: ffmpeg terminato: \n[NVR] telecamera 33: ffmpeg terminato: \n");

  std::map<CamId, Registratore> rimasti = registratori_in_corso();
  std::map<CamId, ErroreRecente> errori = errori_recenti();
  EXPECT_EQ(rimasti.size(), 1u);
  EXPECT_EQ(rimasti.count(34), 1u);
  EXPECT_GE(vivo.log->fd(), 0);
  for (const auto& c : casi) {
    SCOPED_TRACE(c.cid);
    const ErroreRecente& e = errori[c.cid];
    EXPECT_EQ(e.n, c.atteso.n);
    EXPECT_EQ(e.testo, c.atteso.testo);
    EXPECT_GE(e.ts, t0);
  }
  for (const auto& log : logs) EXPECT_EQ(log->fd(), -1);
}

using FermaTest = RegistratoriTest;

// A child deaf to SIGINT is killed at the deadline, with whatever it started, and reaped; a
// second thread asking meanwhile finds nothing to stop and neither waits nor logs. Stopping
// every recorder with its reason is registratori_e2e_test.cc and python/test_arresto.py.
TEST_F(FermaTest, DeafChildIsKilledAfterTheDeadlineOnceFromTwoThreads) {
  std::string nipote = tmp_ / "nipote";
  Registratore r = registratore(
      61, {"sh", "-c", "trap '' INT; sleep 60 & echo $! > " + nipote + "; wait; sleep 60"});
  const pid_t pid = r.proc->pid();
  adotta_registratore(61, std::move(r));
  r = Registratore{};  // the only copy of the record is now in the table
  for (int i = 0; i < 200 && leggi_file(nipote).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const pid_t pid_nipote = std::stoi(leggi_file(nipote));

  ::testing::internal::CaptureStdout();
  auto t0 = std::chrono::steady_clock::now();
  double durata_primo = 0, durata_secondo = 0;
  std::thread primo([&] {
    _ferma(61);
    durata_primo = secondi_da(t0);
  });
  for (;;) {  // until the first thread has taken the record out
    if (registratori_in_corso().empty()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::thread secondo([&] {
    auto t1 = std::chrono::steady_clock::now();
    _ferma(61, "prova");
    durata_secondo = secondi_da(t1);
  });
  secondo.join();
  primo.join();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] registrazione telecamera 61 fermata (fine)\n");
  EXPECT_LT(durata_secondo, 1.0);
  EXPECT_GE(durata_primo, 20.0);
  EXPECT_LT(durata_primo, 23.0);
  EXPECT_TRUE(testing::attendi_sparito(pid, 5));
  // The grandchild's parent is gone, so someone else reaps it: it must at least be dead.
  for (int i = 0; i < 250 && testing::stato_processo(pid_nipote).value_or('Z') != 'Z'; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(testing::stato_processo(pid_nipote).value_or('Z'), 'Z');
}

}  // namespace
}  // namespace nvr

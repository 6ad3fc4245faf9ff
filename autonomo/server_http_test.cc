// The HTTP server under slow clients, slow handlers, oversized bodies and streams, over real
// loopback connections.
#include "autonomo/server_http.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <thread>

namespace nvr::autonomo {
namespace {

using namespace std::chrono_literals;
using Orologio = std::chrono::steady_clock;

// A stream fed by the test: pieces pushed from any thread, then the end.
class FlussoDiProva : public Flusso {
 public:
  Lettura leggi(char* dove, std::size_t max, std::size_t& n,
                std::function<void()> sveglia) override {
    std::lock_guard l(m_);
    if (pezzi_.empty()) {
      if (fine_) return Lettura::kFine;
      sveglia_ = std::move(sveglia);
      return Lettura::kVuoto;
    }
    n = std::min(max, pezzi_.front().size());
    pezzi_.front().copy(dove, n);
    pezzi_.front().erase(0, n);
    if (pezzi_.front().empty()) pezzi_.pop_front();
    return Lettura::kDati;
  }
  std::string tipo() const override { return "video/mp4"; }
  std::optional<std::uint64_t> lunghezza() const override { return lunghezza_; }
  std::optional<std::uint64_t> lunghezza_;
  void spingi(std::string pezzo, bool fine = false) {
    std::function<void()> sveglia;
    {
      std::lock_guard l(m_);
      if (!pezzo.empty()) pezzi_.push_back(std::move(pezzo));
      fine_ = fine;
      sveglia.swap(sveglia_);
    }
    if (sveglia) sveglia();
  }

 private:
  std::mutex m_;
  std::deque<std::string> pezzi_;
  bool fine_ = false;
  std::function<void()> sveglia_;
};

int connetti(int porta) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_port = htons(static_cast<std::uint16_t>(porta));
  ind.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)), 0);
  return fd;
}

// Whether the server closed `fd` within `secondi` (whatever it sent before).
bool chiusa_entro(int fd, double secondi) {
  const auto fine = Orologio::now() + std::chrono::duration<double>(secondi);
  char buf[4096];
  while (Orologio::now() < fine) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) > 0 && ::read(fd, buf, sizeof(buf)) <= 0) return true;
  }
  return false;
}

class ServerHttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rotte_->add_url_rule("/api/ping", "ping",
                         [](const Richiesta&) {
                           return _json({{"ok", 1}});
                         },
                         {"GET", "POST"});
    rotte_->add_url_rule("/api/lento", "lento",
                         [](const Richiesta&) {
                           std::this_thread::sleep_for(3s);
                           return _json({{"ok", 1}});
                         },
                         {"GET"});
    rotte_->add_url_rule("/api/flusso", "flusso",
                         [this](const Richiesta&) {
                           auto f = std::make_shared<FlussoDiProva>();
                           std::lock_guard l(m_);
                           flusso_ = f;
                           Risposta r;
                           r.flusso = f;
                           return r;
                         },
                         {"GET"});
    rotte_->add_url_rule("/api/lungo", "lungo",
                         [](const Richiesta&) {
                           auto f = std::make_shared<FlussoDiProva>();
                           f->lunghezza_ = 9;
                           f->spingi("unoduetre", true);
                           Risposta r;
                           r.flusso = f;
                           return r;
                         },
                         {"GET"});
    LimitiServer limiti;
    limiti.secondi_intestazioni = 1;
    limiti.massimo_corpo = 1024;
    server_ = std::make_unique<ServerHttp>(rotte_, limiti);
    for (porta_ = 18700; porta_ < 18800 && !server_->apri("127.0.0.1", porta_); ++porta_) {
    }
    servizio_ = std::thread([this] { server_->servi(); });
  }
  void TearDown() override {
    server_->ferma();
    servizio_.join();
  }
  // The stream the last /api/flusso request made, once it exists.
  std::shared_ptr<FlussoDiProva> flusso() {
    for (int i = 0; i < 50; ++i) {
      {
        std::lock_guard l(m_);
        if (auto f = flusso_.lock()) return f;
      }
      std::this_thread::sleep_for(20ms);
    }
    return nullptr;
  }

  std::shared_ptr<Instradatore> rotte_ = std::make_shared<Instradatore>();
  std::unique_ptr<ServerHttp> server_;
  std::thread servizio_;
  int porta_ = 0;
  std::mutex m_;
  std::weak_ptr<FlussoDiProva> flusso_;  // guarded by m_: set by the server's worker
};

TEST_F(ServerHttpTest, SlowClientsAndSlowHandlersDoNotHoldUpTheOthers) {
  std::vector<int> lenti;
  for (int i = 0; i < 40; ++i) {
    lenti.push_back(connetti(porta_));
    const std::string parte = "GET /api/ping HTTP/1.1\r\nHost: x\r\n";
    ASSERT_EQ(::write(lenti.back(), parte.data(), parte.size()), ssize_t(parte.size()));
  }
  std::thread lento(
      [this] { httplib::Client(std::string("127.0.0.1"), porta_).Get("/api/lento"); });
  std::this_thread::sleep_for(200ms);
  httplib::Client c("127.0.0.1", porta_);
  c.set_read_timeout(1, 0);
  const auto inizio = Orologio::now();
  auto r = c.Get("/api/ping");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->status, 200);
  EXPECT_LT(Orologio::now() - inizio, 500ms);
  // Headers never finished: closed once their time is up.
  for (int fd : lenti) {
    EXPECT_TRUE(chiusa_entro(fd, 3));
    ::close(fd);
  }
  lento.join();

  r = c.Post("/api/ping", std::string(2000, 'x'), "application/json");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->status, 413);
  EXPECT_EQ(r->body, R"({"status":"error","message":"Richiesta troppo grande"})");
}

TEST_F(ServerHttpTest, StreamIsSentAsItComesAndFreedWhenTheClientLeaves) {
  std::thread produttore([this] {
    auto f = flusso();
    ASSERT_TRUE(f);
    for (const char* pezzo : {"uno", "due", "tre"}) {
      std::this_thread::sleep_for(100ms);
      f->spingi(pezzo);
    }
    f->spingi("", true);
  });
  std::string ricevuto;
  auto r = httplib::Client("127.0.0.1", porta_).Get("/api/flusso", [&](const char* d, size_t n) {
    ricevuto.append(d, n);
    return true;
  });
  produttore.join();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->status, 200);
  EXPECT_EQ(r->get_header_value("Content-Type"), "video/mp4");
  EXPECT_EQ(ricevuto, "unoduetre");
  EXPECT_EQ(r->get_header_value("Transfer-Encoding"), "chunked");

  // A stream that knows its length says it instead of sending chunks.
  auto lungo = httplib::Client("127.0.0.1", porta_).Get("/api/lungo");
  ASSERT_TRUE(lungo);
  EXPECT_EQ(lungo->body, "unoduetre");
  EXPECT_EQ(lungo->get_header_value("Content-Length"), "9");
  EXPECT_EQ(lungo->get_header_value("Transfer-Encoding"), "");

  // A viewer that hangs up mid-stream: the stream is released, nothing is left waiting.
  const int fd = connetti(porta_);
  const std::string richiesta = "GET /api/flusso HTTP/1.1\r\nHost: x\r\n\r\n";
  ASSERT_EQ(::write(fd, richiesta.data(), richiesta.size()), ssize_t(richiesta.size()));
  auto f = flusso();
  ASSERT_TRUE(f);
  f->spingi("primo");
  char buf[256];
  ASSERT_GT(::read(fd, buf, sizeof(buf)), 0);
  ::close(fd);
  std::weak_ptr<FlussoDiProva> debole = f;
  f.reset();
  for (int i = 0; i < 100 && !debole.expired(); ++i) {
    if (auto g = debole.lock()) g->spingi(std::string(64 * 1024, 'x'));
    std::this_thread::sleep_for(30ms);
  }
  EXPECT_TRUE(debole.expired());
}

// A handler's own caching header on a file answer replaces the server's planned one.
TEST(ServerHttpFileTest, HandlerHeaderReplacesThePlannedOne) {
  char nome[] = "/tmp/nvr_file_XXXXXX";
  const int fd = ::mkstemp(nome);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, "\xFF\xD8ok", 4), 4);
  ::close(fd);
  auto rotte = std::make_shared<Instradatore>();
  rotte->add_url_rule("/api/foto", "foto",
                      [&](const Richiesta&) {
                        Risposta r;
                        r.file = FileDaInviare{nome, "image/jpeg", false, ""};
                        r.intestazioni = {{"Cache-Control", "private, max-age=86400"}};
                        return r;
                      },
                      {"GET"});
  ServerHttp server(rotte, LimitiServer{});
  int porta = 18800;
  while (porta < 18900 && !server.apri("127.0.0.1", porta)) ++porta;
  std::thread servizio([&] { server.servi(); });
  auto r = httplib::Client("127.0.0.1", porta).Get("/api/foto");
  server.ferma();
  servizio.join();
  ::unlink(nome);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->status, 200);
  EXPECT_EQ(r->get_header_value_count("Cache-Control"), 1u);
  EXPECT_EQ(r->get_header_value("Cache-Control"), "private, max-age=86400");
  EXPECT_EQ(r->body, "\xFF\xD8ok");
}

// A file from a shortcut goes out like any other, byte ranges included, on a kept-alive
// connection; the view answers what the shortcut leaves.
TEST(ServerHttpFileTest, ShortcutAnswersOnAKeptAliveConnection) {
  char nome[] = "/tmp/nvr_file_XXXXXX";
  const int fd = ::mkstemp(nome);
  ASSERT_EQ(::write(fd, "0123456789", 10), 10);
  ::close(fd);
  auto rotte = std::make_shared<Instradatore>();
  rotte->add_url_rule("/api/f/<int:rid>", "f", [](const Richiesta&) { return Risposta{}; },
                      {"GET"});
  rotte->aggiungi_scorciatoia("f", [&](const Richiesta& r) -> std::optional<Risposta> {
    if (*r.rid != 2) return std::nullopt;
    Risposta risposta;
    risposta.file = FileDaInviare{nome, "video/mp4", false, "f.mp4"};
    return risposta;
  });
  ServerHttp server(rotte, LimitiServer{});
  int porta = 18900;
  while (porta < 19000 && !server.apri("127.0.0.1", porta)) ++porta;
  std::thread servizio([&] { server.servi(); });
  httplib::Client cliente("127.0.0.1", porta);
  cliente.set_keep_alive(true);
  auto parte = cliente.Get("/api/f/2", {{"Range", "bytes=3-5"}});
  auto vista = cliente.Get("/api/f/1");
  server.ferma();
  servizio.join();
  ::unlink(nome);
  ASSERT_TRUE(parte && vista);
  EXPECT_EQ(parte->status, 206);
  EXPECT_EQ(parte->body, "345");
  EXPECT_EQ(vista->body, "{}");
}

}  // namespace
}  // namespace nvr::autonomo

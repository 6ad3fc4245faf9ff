#include "autonomo/accesso.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <thread>

#include "core/db.h"

namespace nvr::autonomo {

namespace {

constexpr int kIterazioni = 200000;
constexpr std::size_t kByteSale = 16;
constexpr std::size_t kByteHash = 32;

std::vector<unsigned char> casuali(std::size_t n) {
  std::vector<unsigned char> b(n);
  if (RAND_bytes(b.data(), static_cast<int>(n)) != 1)
    throw std::runtime_error("generatore casuale del sistema non disponibile");
  return b;
}

std::string esadecimale(const std::vector<unsigned char>& b) {
  static constexpr char cifre[] = "0123456789abcdef";
  std::string s;
  for (unsigned char c : b) {
    s += cifre[c >> 4];
    s += cifre[c & 15];
  }
  return s;
}

std::optional<std::vector<unsigned char>> da_esadecimale(const std::string& s) {
  if (s.size() % 2 != 0) return std::nullopt;
  std::vector<unsigned char> b;
  for (std::size_t i = 0; i < s.size(); i += 2) {
    auto cifra = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      return -1;
    };
    const int alto = cifra(s[i]), basso = cifra(s[i + 1]);
    if (alto < 0 || basso < 0) return std::nullopt;
    b.push_back(static_cast<unsigned char>(alto * 16 + basso));
  }
  return b;
}

std::vector<unsigned char> deriva(const std::string& password,
                                  const std::vector<unsigned char>& sale, int iterazioni) {
  std::vector<unsigned char> h(kByteHash);
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), sale.data(),
                        static_cast<int>(sale.size()), iterazioni, EVP_sha256(),
                        static_cast<int>(h.size()), h.data()) != 1)
    throw std::runtime_error("PBKDF2 non disponibile");
  return h;
}

bool uguali(const std::string& a, const std::string& b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

std::string genera_password() {
  // No 0/o, 1/l/i: the password is read off a terminal and typed by hand.
  static constexpr std::string_view alfabeto = "abcdefghjkmnpqrstuvwxyz23456789";
  std::string p;
  while (p.size() < 19) {
    if (p.size() % 5 == 4) {
      p += '-';
      continue;
    }
    const unsigned char c = casuali(1)[0];
    // Rejection keeps every letter equally likely.
    if (c >= 256 / alfabeto.size() * alfabeto.size()) continue;
    p += alfabeto[c % alfabeto.size()];
  }
  return p;
}

std::string impronta_password(const std::string& password) {
  const auto sale = casuali(kByteSale);
  return "pbkdf2_sha256$" + std::to_string(kIterazioni) + "$" + esadecimale(sale) + "$" +
         esadecimale(deriva(password, sale, kIterazioni));
}

bool verifica_password(const std::string& password, const std::string& impronta) {
  std::vector<std::string> parti;
  std::size_t i = 0;
  while (parti.size() < 4) {
    const std::size_t j = impronta.find('$', i);
    parti.push_back(impronta.substr(i, j == std::string::npos ? j : j - i));
    if (j == std::string::npos) break;
    i = j + 1;
  }
  if (parti.size() != 4 || parti[0] != "pbkdf2_sha256") return false;
  int iterazioni = 0;
  try {
    iterazioni = std::stoi(parti[1]);
  } catch (...) {
    return false;
  }
  auto sale = da_esadecimale(parti[2]);
  if (iterazioni < 1 || !sale || sale->empty()) return false;
  return uguali(esadecimale(deriva(password, *sale, iterazioni)), parti[3]);
}

std::optional<std::string> leggi_impronta(const std::string& db_file) {
  Connessione c(db_file);
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_autonomo_accesso (id INTEGER PRIMARY KEY, impronta TEXT)");
  c.commit();
  auto righe = c.righe("SELECT impronta FROM nvr_autonomo_accesso WHERE id=1");
  if (righe.empty() || come_testo(righe[0][0]).empty()) return std::nullopt;
  return come_testo(righe[0][0]);
}

void salva_impronta(const std::string& db_file, const std::string& impronta) {
  Connessione c(db_file);
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_autonomo_accesso (id INTEGER PRIMARY KEY, impronta TEXT)");
  c.esegui("INSERT OR REPLACE INTO nvr_autonomo_accesso (id, impronta) VALUES (1, ?)", {impronta});
  c.commit();
}

EsitoAccesso Accesso::accedi(const std::string& password, const std::string& indirizzo) {
  auto adesso = [] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  };
  auto riprova_fra = [](double secondi) { return static_cast<int>(std::ceil(secondi)); };
  {
    std::lock_guard l(m_);
    auto it = tentativi_.find(indirizzo);
    if (it != tentativi_.end())
      if (double b = secondi_di_blocco(it->second, adesso()); b > 0) return {{}, riprova_fra(b)};
  }
  if (verifica_password(password, impronta_)) {
    std::string token = esadecimale(casuali(32));
    std::lock_guard l(m_);
    tentativi_.erase(indirizzo);
    sessioni_.push_back(token);
    if (sessioni_.size() > kMaxSessioni) sessioni_.erase(sessioni_.begin());
    return {token, 0};
  }
  DopoFallimento d;
  {
    std::lock_guard l(m_);
    const double ora = adesso();
    Tentativi& t = tentativi_[indirizzo];
    d = dopo_fallimento(t, ora, regole_);
    t = d.tentativi;
    pota_tentativi(tentativi_, ora, regole_);
    if (double b = secondi_di_blocco(d.tentativi, ora); b > 0) return {{}, riprova_fra(b)};
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(d.attesa));
  return {};
}

bool Accesso::valida(const std::string& token) const {
  if (token.empty()) return false;
  std::lock_guard l(m_);
  bool trovata = false;
  for (const auto& s : sessioni_) trovata |= uguali(s, token);  // no early exit: no timing hint
  return trovata;
}

void Accesso::esci(const std::string& token) {
  std::lock_guard l(m_);
  std::erase_if(sessioni_, [&](const std::string& s) { return uguali(s, token); });
}

}  // namespace nvr::autonomo

// A web host for the tests that attach the recorder in-process and reach it through its engine
// and database: an app that takes the routes (an endpoint registered twice is an error, as in
// Flask) and guards that let every request through. The routes themselves are served and tested
// by the real hosts.
#pragma once

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/host.h"
#include "testing/ambiente.h"

namespace nvr::testing {

class AppDiProva : public AppWeb {
 public:
  void add_url_rule(const std::string&, const std::string& endpoint, Vista,
                    const std::vector<std::string>&) override {
    if (!endpoint_.insert(endpoint).second)
      throw std::runtime_error("endpoint gia' registrato: " + endpoint);
  }

 private:
  std::set<std::string> endpoint_;
};

// Not yet attached: tests call collega().
class HostWeb : public HostDiProva {
 public:
  HostWeb() : HostDiProva(Aggancia::kNo) {
    host->app = std::make_shared<AppDiProva>();
    host->login_required = host->admin_required = [](Vista v) { return v; };
  }
};

}  // namespace nvr::testing

// Probes: the test binary started again as another user, to see what an unprivileged server sees.
//
// The probe side registers, in a static initializer, a function to run instead of the tests when
// its environment variable is set. It runs once main has started (so the module state exists),
// prints its answer on a line of its own and ends the process.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace nvr::testing {

// Registers `sonda`, run with the value of the variable `variabile` when that is set. Answers
// true, so that it can initialise a namespace-scope constant.
bool registra_sonda(const std::string& variabile,
                    std::function<std::string(const std::string& valore)> sonda);

// Runs this test binary again as user nobody (group nogroup, no other groups) with only the
// environment `ambiente` ("NOME=valore"), and answers the probe's answer; "" with a test failure
// when the probe did not answer.
std::string sonda_come_nobody(const std::vector<std::string>& ambiente, double timeout = 60);

}  // namespace nvr::testing

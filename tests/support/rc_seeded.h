// RapidCheck properties run with a fixed seed, so that every run of a test
// program tries the same cases and a failure is reproduced by running it again.
#ifndef NIKERKIOG_RC_SEEDED_H
#define NIKERKIOG_RC_SEEDED_H

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <utility>

namespace testsupport {

// Checks `property` on `runs` generated cases drawn from `seed`; a failure
// fails the current test with RapidCheck's report (the shrunk counterexample).
template <typename Property>
void check_seeded(const std::string &name, std::uint64_t seed, int runs, Property &&property) {
  rc::detail::TestParams params;
  params.seed = seed;
  params.maxSuccess = runs;
  rc::detail::TestMetadata metadata;
  metadata.id = name;
  metadata.description = name;
  const auto result = rc::detail::checkTestable(std::forward<Property>(property), metadata, params);
  std::ostringstream report;
  rc::detail::printResultMessage(result, report);
  EXPECT_TRUE(result.template is<rc::detail::SuccessResult>()) << name << ":\n" << report.str();
}

}  // namespace testsupport

#endif

// Libraries loaded on first use: loaded once whichever thread asks, and a
// missing library or function is said once and leaves the caller without it.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "LazyLibrary.h"

double quillon_no_such_function(double);

namespace {

std::vector<std::string> gReasons;
void remember(const std::string& reason) { gReasons.push_back(reason); }

#define MATH_FUNCTIONS(X) X(cos) X(sin)
QUILLON_LAZY_FUNCTIONS(MathFunctions, MATH_FUNCTIONS);
#define LACKING_FUNCTIONS(X) X(cos) X(quillon_no_such_function)
QUILLON_LAZY_FUNCTIONS(LackingFunctions, LACKING_FUNCTIONS);

TEST(LazyLibrary, LoadsOnceForAllThreadsAndNotBeforeAsked) {
  gReasons.clear();
  static constinit quillon::LazyLibrary<MathFunctions> math("libm.so.6", &remember);
  EXPECT_EQ(math.loaded(), nullptr);
  std::vector<const MathFunctions*> seen(8);
  std::vector<std::thread> threads;
  for (auto& slot : seen) threads.emplace_back([&slot] { slot = math.load(); });
  for (auto& thread : threads) thread.join();
  ASSERT_NE(seen[0], nullptr);
  for (auto* functions : seen) EXPECT_EQ(functions, seen[0]);
  EXPECT_EQ(math.loaded(), seen[0]);
  EXPECT_DOUBLE_EQ(seen[0]->cos(0.0), 1.0);
  EXPECT_TRUE(gReasons.empty());
}

TEST(LazyLibrary, MissingLibraryOrFunctionIsSaidOnceAndGivesNothing) {
  struct Case { const char* soname; std::string said; };
  for (const Case& c : {Case{"libquillon-absent.so.1", "libquillon-absent.so.1"},
                        Case{"libm.so.6", "libm.so.6 lacks quillon_no_such_function"}}) {
    SCOPED_TRACE(c.soname);
    gReasons.clear();
    quillon::LazyLibrary<LackingFunctions> library(c.soname, &remember);
    EXPECT_EQ(library.load(), nullptr);
    EXPECT_EQ(library.load(), nullptr);
    EXPECT_EQ(library.loaded(), nullptr);
    ASSERT_EQ(gReasons.size(), 1u);
    EXPECT_NE(gReasons[0].find(c.said), std::string::npos) << gReasons[0];
  }
}

}  // namespace

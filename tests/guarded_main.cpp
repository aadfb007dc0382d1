// Runs the tests with operands that end at guard pages, and then with operands that begin behind them. On an emulated
// processor, which takes many times as long, the second round is left out.
#include <gtest/gtest.h>

#include "tests/data.h"

namespace {

struct Sides : testing::EmptyTestEventListener {
  void OnTestIterationStart(const testing::UnitTest&, int iteration) override { test::ends_at_guard = iteration == 0; }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new Sides);
  testing::FLAGS_gtest_repeat = MORUN_GUARD_ROUNDS;
  return RUN_ALL_TESTS();
}

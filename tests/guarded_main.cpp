// Runs the tests twice: with operands that end at guard pages, and with operands that begin behind them.
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
  testing::FLAGS_gtest_repeat = 2;
  return RUN_ALL_TESTS();
}

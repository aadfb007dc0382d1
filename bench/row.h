// A row of the table: an operation, the yardstick it is measured by, and the ratio to reach.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Yardstick {
  std::string name;
  std::function<void()> run;  // empty: the operation is timed alone
};

// The closures own the memory they work on.
struct Work {
  std::function<void()> operation;
  Yardstick yardstick;
};

struct Row {
  std::string name;               // operation/shape
  double wanted;                  // ratio of the yardstick's time to the operation's; 0: for information
  std::function<Work()> prepare;  // called when the row's turn comes; throws std::exception
};

std::vector<Row> conversion_rows();
std::vector<Row> product_rows();
std::vector<Row> lifecycle_rows();

}  // namespace bench

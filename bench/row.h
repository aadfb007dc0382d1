// A row of the table: an operation, the yardstick it is measured by, and the ratio to reach.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

enum class Clock {
  thread,  // CPU time of the calling thread: other work that takes the processor away does not count
  wall     // for work on several threads
};

struct Yardstick {
  std::string name;
  std::function<void()> run;  // empty: the operation is timed alone
};

// The closures own the memory they work on.
struct Work {
  std::function<void()> operation;
  Yardstick yardstick;
  std::function<void()> peer = {};  // another library's nearest operation; empty: none
  Clock clock = Clock::thread;
};

struct Row {
  std::string name;               // operation/shape
  double wanted;                  // ratio of the yardstick's time to the operation's; 0: for information
  std::function<Work()> prepare;  // called when the row's turn comes; throws std::exception
};

// A row of the second table: a whole call of the application, and the share of it that the library may take.
struct CallRow {
  std::string name;     // operation/shape
  double wanted_share;  // of the whole call's time; 0: for information
  std::function<std::function<void()>()> prepare;
};

std::vector<Row> conversion_rows();
std::vector<Row> product_rows();
std::vector<Row> weight_rows();
std::vector<CallRow> call_rows();

}  // namespace bench

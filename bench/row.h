// A row of the table: an operation, the yardstick for it, and the ratio to reach.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

enum class Clock {
  thread,  // CPU time of the calling thread: excludes time in which other programs have the processor
  wall     // real time, for work on several threads
};

struct Yardstick {
  std::string name;
  std::function<void()> run;  // empty: no yardstick, the operation is timed alone
};

// The functions own the memory that they use.
struct Work {
  std::function<void()> operation;
  Yardstick yardstick;
  std::function<void()> peer = {};  // another library's nearest operation; empty: none
  Clock clock = Clock::thread;
};

// The ratio of the yardstick's time to the operation's that a backend should reach; 0: for information only. The
// backends without a member of their own have nothing to reach.
struct Wanted {
  double avx512 = 0, avx2 = 0, avx512_fp16 = avx512;
};
std::string backend_in_use();
double wanted_here(const Wanted& wanted);  // of the backend in use

struct Row {
  std::string name;               // operation/shape
  double wanted;                  // ratio of the yardstick's time to the operation's; 0: for information only
  std::function<Work()> prepare;  // called just before the row is measured; throws std::exception
};

// A row of the second table: a whole call of the application, and the largest share of its time that the library may
// take.
struct CallRow {
  std::string name;     // operation/shape
  double wanted_share;  // share of the whole call's time; 0: for information only
  std::function<std::function<void()>()> prepare;
};

std::vector<Row> conversion_rows();
std::vector<Row> product_rows();
std::vector<Row> size_rows();  // products of many sizes
std::vector<Row> weight_rows();
std::vector<CallRow> call_rows();

}  // namespace bench

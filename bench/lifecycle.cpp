#include "bench/npu.h"
#include "bench/row.h"

namespace bench {

std::vector<Row> lifecycle_rows() {
  return {{"init_cleanup/default_options", 0, [] { return Work{[] { const Npu npu; }, {}}; }}};
}

}  // namespace bench

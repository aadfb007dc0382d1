// What __metadata__ of a packed file says of its tensors. Key "morun.format" holds the format's version; key
// "morun.tensor.NAME" holds the record of tensor NAME, a flat JSON object:
//
//   form           "carried", "f16", "a8w8", "a8w4"
//   source         the tensor's name in the checkpoint
//   source_dtype   its dtype there
//   checksum       "xxh3:" and 16 lower-case hexadecimal digits
//   packed:     n_inner, n_col   true extents
//               error            relative Frobenius error of the values
//               product_error    likewise of the product with the activations; absent without
//   quantised:  quantiser, and zero_points, scales, sums: offsets of the parts in the tensor
//
// Members that a reader does not know are left alone.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "include/morun_weights.h"

namespace weights {

constexpr char format_key[] = "morun.format";
constexpr char record_prefix[] = "morun.tensor.";

struct Record {
  int32_t form = MORUN_WEIGHTS_CARRIED;
  int32_t quantiser = MORUN_WEIGHTS_MINMAX;  // quantised forms
  uint64_t n_inner = 0;                      // packed forms
  uint64_t n_col = 0;
  uint64_t zero_points = 0;  // quantised forms, as the next two
  uint64_t scales = 0;
  uint64_t sums = 0;
  std::string source;
  std::string source_dtype;
  double error = 0;
  double product_error = -1;  // -1: not measured
  uint64_t checksum = 0;
};

std::string format_record(const Record& record);

// Throws RECORD_JSON, RECORD_MEMBER, UNKNOWN_FORM, UNKNOWN_QUANTISER or CHECKSUM_TEXT. `place` begins the messages:
// file and tensor.
Record parse_record(const std::string& place, std::string_view text);

}  // namespace weights

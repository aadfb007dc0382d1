#include <cmath>

#include "include/tavik.h"
#include "simd/scalar.h"

namespace {

// The bound is deliberately loose, and the same for every element type.
constexpr float greatest_deviation = 2000;

template <class T>
double to_double(T value) {
  return static_cast<double>(value);
}
template <class T>
float to_float(T value) {
  return static_cast<float>(value);
}
// Every 16-bit element is a half.
double to_double(uint16_t half) {
  return static_cast<double>(morun::simd::widen_bits(half));
}
float to_float(uint16_t half) {
  return morun::simd::widen_bits(half);
}

template <class T>
void print_elements(FILE* stream, const T* begin, const T* end) {
  for (const T* element = begin; element < end; ++element) fprintf(stream, "%10.5f ", to_double(*element));
}

template <class T>
int print_vector(FILE* stream, uint64_t count, const T* data, const char* label, uint64_t edge) {
  fprintf(stream, "%-18s: ", label);
  if (count / 2 < edge) {  // count < 2 * edge: print all elements
    print_elements(stream, data, data + count);
  } else {
    print_elements(stream, data, data + edge);
    fprintf(stream, "... ");
    print_elements(stream, data + count - edge, data + count);
  }
  double min = to_double(data[0]), max = min, sum = min;
  for (uint64_t i = 1; i < count; ++i) {
    const double element = to_double(data[i]);
    if (element < min) min = element;
    if (element > max) max = element;
    sum += element;
  }
  return fprintf(stream, " [min = %11f, max = %11f, mean = %11f, sum = %11f]\n", min, max,
                 sum / static_cast<double>(count), sum);
}

template <class T>
int check_vector(FILE* stream, uint64_t count, const float* reference, const T* data, const char* label) {
  float largest = 0;
  for (uint64_t i = 0; i < count; ++i) {
    const float deviation = std::fabs(reference[i] - to_float(data[i]));
    if (deviation > largest) largest = deviation;
  }
  fprintf(stream, "%-18s: max deviation %10.5f ", label, static_cast<double>(largest));
  const bool passed = !(largest > greatest_deviation);
  fprintf(stream, passed ? "\n" : "-- Bad results :-(((\n");
  return passed ? 1 : 0;
}

}  // namespace

#define TAVIK_VECTOR_FAMILY(type, print, check)                                                          \
  int print(FILE* stream, uint64_t count, const type* data, const char* label, uint64_t edge) {          \
    return print_vector(stream, count, data, label, edge);                                               \
  }                                                                                                      \
  int check(FILE* stream, uint64_t count, const float* reference, const type* data, const char* label) { \
    return check_vector(stream, count, reference, data, label);                                          \
  }
TAVIK_VECTOR_FAMILY(int8_t, tavik_vector_print_i8, tavik_vector_check_i8)
TAVIK_VECTOR_FAMILY(uint8_t, tavik_vector_print_u8, tavik_vector_check_u8)
TAVIK_VECTOR_FAMILY(uint16_t, tavik_vector_print_f16, tavik_vector_check_f16)
TAVIK_VECTOR_FAMILY(int32_t, tavik_vector_print_i32, tavik_vector_check_i32)
TAVIK_VECTOR_FAMILY(uint32_t, tavik_vector_print_u32, tavik_vector_check_u32)
TAVIK_VECTOR_FAMILY(float, tavik_vector_print_f32, tavik_vector_check_f32)
#undef TAVIK_VECTOR_FAMILY

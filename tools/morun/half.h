// Half precision by its definition, apart from the library's: values that binary16 holds, kept as double.
#pragma once

#include <cstdint>

namespace tool::half {

// The nearest binary16 value, ties to even.
double round(double value);

// a * b + c, rounded once.
double fused(double a, double b, double c);

// Half the distance between the binary16 values around `value`: what rounding changes at most.
double half_step(double value);

// The pattern of a binary16 value, and its value.
uint16_t bits(double value);
double value(uint16_t bits);

}  // namespace tool::half

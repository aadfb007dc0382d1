// Half precision by its definition, independent of the library. Values are doubles that binary16 can represent.
#pragma once

#include <cstdint>

namespace tool::half {

// Returns the nearest binary16 value, ties to even.
double round(double value);

// Returns a * b + c, rounded once.
double fused(double a, double b, double c);

// Returns half the distance between the binary16 values around `value`, which is the largest error that rounding makes.
double half_step(double value);

// Return the bit pattern of a binary16 value, and the value of a bit pattern.
uint16_t bits(double value);
double value(uint16_t bits);

}  // namespace tool::half

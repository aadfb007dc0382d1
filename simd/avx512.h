// The vector vocabulary on x86-64 with AVX-512 (F, BW, CD, DQ, VL). Operations over eight lanes are those of AVX2.
#pragma once

#include "simd/avx2.h"

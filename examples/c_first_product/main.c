// A first product A = X * W on the NPU, from start to finish. The program looks at every status.
//
// Activations X and results A are ordinary row-major f32. The weights W are halves in a buffer that the host and the
// DSP share, in the order in which the matrix unit reads them. An application lays out its weights once and multiplies
// by them many times.

#include <math.h>
#include <morun.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <tavik.h>  // for tavik_f32_to_f16, which needs no context

enum { N_ROW = 64, N_INNER = 512, N_COL = 256 };  // multiples of 32

static float X[N_ROW * N_INNER];
static float W[N_INNER * N_COL];
static float A[N_ROW * N_COL];

static void fill_with_random_values(float* values, int count) {
  for (int i = 0; i < count; ++i) values[i] = 2.0f * (float)rand() / (float)RAND_MAX - 1.0f;
}

// Returns the relative deviation of A from the product in double precision: the root of the sum of squared differences,
// divided by the root of the sum of squared values.
static double deviation(void) {
  double squared_differences = 0;
  double squared_values = 0;
  for (int r = 0; r < N_ROW; ++r) {
    for (int c = 0; c < N_COL; ++c) {
      double sum = 0;
      for (int k = 0; k < N_INNER; ++k) sum += (double)X[r * N_INNER + k] * (double)W[k * N_COL + c];
      squared_differences += ((double)A[r * N_COL + c] - sum) * ((double)A[r * N_COL + c] - sum);
      squared_values += sum * sum;
    }
  }
  return sqrt(squared_differences / squared_values);
}

// `weights` is a shared buffer for N_INNER x N_COL halves.
static bool multiply(uint16_t* weights) {
  tavik_f32_to_f16(N_INNER * N_COL, W, weights);
  if (morun_cpu_rm_to_wh_f16_inplace(N_INNER, N_COL, weights) != MORUN_SUCCESS) return false;
  if (morun_npu_mm_f32f16_f32(MORUN_DOMAIN_NPU0, N_ROW, N_COL, N_INNER, A, X, weights) != MORUN_SUCCESS) return false;

  printf("A (%d x %d) = X (%d x %d) * W (%d x %d)\n", N_ROW, N_COL, N_ROW, N_INNER, N_INNER, N_COL);
  printf("A[0][0..3] = %g %g %g %g\n", (double)A[0], (double)A[1], (double)A[2], (double)A[3]);
  const double bound = 0.001;  // X, W and A are rounded to halves, of 11 significant bits
  const double found = deviation();
  printf("relative deviation %.5f, bound %.3f\n", found, bound);
  return found < bound;
}

static bool multiply_with_buffer(void) {
  void* weights = NULL;
  if (morun_npu_alloc(N_INNER * N_COL * sizeof(uint16_t), &weights) != MORUN_SUCCESS) return false;
  const bool passed = multiply(weights);
  const bool freed = morun_npu_free(weights) == MORUN_SUCCESS;
  return passed && freed;
}

// A call that fails prints the reason to standard error. The program then only releases what it has.
int main(void) {
  fill_with_random_values(X, N_ROW * N_INNER);
  fill_with_random_values(W, N_INNER * N_COL);
  if (morun_npu_initialize(MORUN_DOMAIN_NPU0) != MORUN_SUCCESS) return EXIT_FAILURE;
  const bool passed = multiply_with_buffer();
  const bool finalized = morun_npu_finalize(MORUN_DOMAIN_NPU0) == MORUN_SUCCESS;
  return passed && finalized ? EXIT_SUCCESS : EXIT_FAILURE;
}

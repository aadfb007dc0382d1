#include "include/tavik.h"
#include "source/host/error.h"
#include "source/host/kernels/size_check.h"
#include "source/host/staging.h"
#include "source/loops.h"
#include "source/own.h"

MORUN_WEAK(qmmbp_HxD)
MORUN_WEAK(qmmbp_HxD_)
MORUN_WEAK(qdotxH)
MORUN_WEAK(dravin_math_matmul_pq)

using tavik::loops;

void qmmbp_HxD(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab) {
  loops().qmmbp_HxD(ldc, n_inner, C, Wb, Ab);
}

void qmmbp_HxD_(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab) {
  loops().qmmbp_HxD_(ldc, n_inner, C, Wb, Ab);
}

void qdotxH(uint64_t n_inner, float* Crow, const uint16_t* Wb, const uint16_t* Arow) {
  loops().qdotxH(n_inner, Crow, Wb, Arow);
}

void dravin_math_matmul_pq(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint64_t p, uint64_t q, float* C,
                           const uint16_t* A, const uint16_t* W) {
  loops().dravin_math_matmul_pq(n_row, n_col, n_inner, p, q, C, A, W);
}

uint32_t tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb(const tavik_context* context, uint64_t n_row, uint64_t n_col,
                                              uint64_t n_inner, float* C, const uint16_t* A, const uint16_t* W) {
  TAVIK_TRY(tavik::mm_size_check(context, n_row, n_col, n_inner));
  loops().cpu_mm(n_row, n_col, n_inner, C, A, W);
  return TAVIK_SUCCESS;
}

uint32_t tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(tavik_context* context, uint64_t n_row, uint64_t n_col, uint64_t n_inner,
                                              float* C, const float* A, const uint16_t* W) {
  TAVIK_TRY(tavik::mm_size_check(context, n_row, n_col, n_inner));
  TAVIK_TRY(tavik::cross_session_size_check(context, 2 * n_row * n_inner, 0));
  auto* const halves = static_cast<uint16_t*>(context->X);
  loops().f32_to_f16(n_row * n_inner, A, halves);
  tavik::note_staged(context, 2 * n_row * n_inner);
  loops().cpu_mm(n_row, n_col, n_inner, C, halves, W);
  return TAVIK_SUCCESS;
}

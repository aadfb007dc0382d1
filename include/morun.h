/* libmorun, upper interface.
 *
 * Statuses: 0 success, 10 a pointer that is required is NULL. A failing call prints one line to standard error:
 * "[MORUN][ERROR] file = FILE, func = FUNCTION, line = LINE: MESSAGE".
 *
 * Plain C11, also valid C++.
 */
#ifndef MORUN_H
#define MORUN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Integer results to row-major: i32 in 64 x 32 tiles, element (r, c) at ((r / 64) * (n_col / 32) + c / 32) * 2048 +
 * (r % 64) * 32 + c % 32, to r * n_col + c. Any n_row, the last tiles are whole; columns past the last whole tile
 * are not written. Status 10 when src or dst is NULL. */
uint32_t morun_cpu_ui8i8_ah_to_i32_rm(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst);

#ifdef __cplusplus
}
#endif
#endif

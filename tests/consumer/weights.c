// Packs a matrix and takes the values back, and opens a file that is not there: what the companion throws inside stays inside.
#include <math.h>
#include <morun_weights.h>
#include <string.h>

static float values[33 * 40], unpacked[33 * 40];
static uint32_t packed[10240 / 4];

int main(void) {
  for (int i = 0; i < 33 * 40; ++i) values[i] = (float)(i % 61 - 30);
  const morun_weights_recipe recipe = {.form = MORUN_WEIGHTS_A8W8, .n_inner = 33, .n_col = 40};
  if (morun_weights_pack_columns(&recipe, 0, 40, values, 40, 1, packed, sizeof packed, NULL) != 0) return 1;
  if (morun_weights_unpack_columns(recipe.form, 33, 40, packed, sizeof packed, 0, 40, unpacked, 40, 1) != 0) return 1;
  for (int i = 0; i < 33 * 40; ++i)
    if (fabsf(unpacked[i] - values[i]) > 0.15F) return 1;
  morun_weights_file* file = NULL;
  return strcmp(morun_weights_status_name(morun_weights_file_open("none", &file)), "OPEN") == 0 ? 0 : 1;
}

#include "source/morun_npu_macro/npu_state.h"

#include <dlfcn.h>
#include <link.h>

#include <cstring>

tavik_context* own::context = nullptr;
morun_map_entry own::morun_map_db[TAVIK_MAX_DESCRIPTOR + 1] = {};
char own::version_prerel[32] = "";
char own::npu_version[128] = "";

MORUN_EXPORT_OWN(context)
MORUN_EXPORT_OWN(morun_map_db)
MORUN_EXPORT_OWN(version_prerel)
MORUN_EXPORT_OWN(npu_version)

// A program may read a library's variable directly, without the global offset table. Then the linker gives the program
// a copy of the variable, and every lookup of the variable's name with its version node finds that copy. A variable of
// the program's own under the same name has no version node, and the lookup does not find it. The lookup does find such
// a variable in a shared library that has no version nodes at all, but a copy stands only in the program itself.
namespace {

void* copy_in_program(const char* name) {
  void* const found = dlvsym(RTLD_DEFAULT, name, "MORUN_1");
  Dl_info info;
  void* object = nullptr;
  if (found == nullptr || dladdr1(found, &info, &object, RTLD_DL_LINKMAP) == 0) return nullptr;
  const bool is_program = static_cast<const link_map*>(object)->l_name[0] == '\0';
  return is_program ? found : nullptr;
}

struct Variable {
  const char* name;
  void* own;
  size_t size;
  void* copy;
};
constinit Variable variables[] = {
    {"context", &own::context, sizeof own::context, nullptr},  // the pointer: NOLINT(bugprone-sizeof-expression)
    {"morun_map_db", own::morun_map_db, sizeof own::morun_map_db, nullptr},
    {"version_prerel", own::version_prerel, sizeof own::version_prerel, nullptr},
    {"npu_version", own::npu_version, sizeof own::npu_version, nullptr},
};
#ifdef MORUN_STATIC
constinit bool looked_for_copies = true;  // a static library is part of the program, so there are no copies
#else
constinit bool looked_for_copies = false;
#endif

}  // namespace

void morun::publish_state() {
  for (Variable& variable : variables) {
    if (!looked_for_copies) variable.copy = copy_in_program(variable.name);
    if (variable.copy != nullptr) memcpy(variable.copy, variable.own, variable.size);
  }
  looked_for_copies = true;
}

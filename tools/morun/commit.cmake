# Writes the source that names the commit of the sources, the type of the build and the compiler. Variables: source, a
# folder of the sources; file, what to write; build_type and compiler. The file stays as it is while these do. Sources
# outside a git repository have no commit.
execute_process(COMMAND git -C "${source}" describe --always --dirty --abbrev=12 --exclude=*
  OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  set(commit "unknown")
endif()
file(CONFIGURE OUTPUT "${file}" CONTENT [[
#include "tools/morun/version.h"
const char tool::commit[] = "@commit@", tool::build_type[] = "@build_type@", tool::compiler[] = "@compiler@";
]] @ONLY)

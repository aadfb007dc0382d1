# Writes the source that names the commit of the sources. Variables: source, a folder of the sources; file, what to write.
# The file stays as it is while the commit does. Sources outside a git repository have no commit.
execute_process(COMMAND git -C "${source}" describe --always --dirty --abbrev=12 --exclude=*
  OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  set(commit "unknown")
endif()
file(CONFIGURE OUTPUT "${file}" CONTENT [[
#include "tools/morun/version.h"
const char tool::commit[] = "@commit@";
]] @ONLY)

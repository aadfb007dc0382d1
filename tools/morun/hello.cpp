#include "tools/morun/commands.h"
#include "tools/morun/library.h"

void tool::hello() {
  require(tavik_hello_host(), "the host does not greet");
  // Without a context, tavik_hello_veyra ends the process. Opening a context first reports that failure as an ordinary
  // error.
  open_context(default_options());
  require(tavik_hello_veyra(), "the DSP does not greet");
}

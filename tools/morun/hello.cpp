#include "tools/morun/commands.h"
#include "tools/morun/library.h"

void tool::hello() {
  require(tavik_hello_host(), "the host does not greet");
  // The DSP's greeting ends the process where its context cannot be had; here that is an error like any other.
  open_context(default_options());
  require(tavik_hello_veyra(), "the DSP does not greet");
}

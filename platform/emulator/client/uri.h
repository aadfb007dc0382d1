// URIs of the DSP module: "file:///libtavik_skel.so?tavik_skel_handle_invoke&_modver=1.0&_dom=cdsp&_session=1". The
// last option is left out for session 0.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace parlo::client {

// Returns `module_uri` with the compute domain and a session appended.
std::string session_uri(std::string_view module_uri, uint32_t session_id);

// Stores the session in which a URI opens the module. Returns a status.
int32_t parse_uri(std::string_view uri, uint32_t& session_id);

}  // namespace parlo::client

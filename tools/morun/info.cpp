#include <dlfcn.h>
#include <dsp_capability.h>
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/parlo.h"
#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/library.h"
#include "tools/morun/standard_streams.h"
#include "tools/morun/upper.h"
#include "tools/morun/version.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr char domain_name[] = "cdsp";

bool platform_has(const char* entry) {
  return dlsym(RTLD_DEFAULT, entry) != nullptr;
}

std::string platform_library() {
  Dl_info found = {};
  const void* const entry = dlsym(RTLD_DEFAULT, "parlo_handle_open");
  if (entry == nullptr || dladdr(entry, &found) == 0) return "unknown";
  return found.dli_fname;
}

// The emulated platform alone has a profile.
Json platform() {
  Json section = {{"library", platform_library()}};
  if (const auto name = reinterpret_cast<const char* (*)()>(dlsym(RTLD_DEFAULT, "parlo_emulator_profile_name")))
    section["emulated_profile"] = name();
  return section;
}

// The low byte of an architecture holds two decimal digits: 0x73 is version 73.
uint32_t architecture_version(uint32_t capability) {
  return (capability >> 4 & 15u) * 10 + (capability & 15u);
}

Json domain(const parlo_domain& record) {
  const char* const type = record.type == PARLO_DOMAIN_TYPE_MIRVA   ? "MIRVA"
                           : record.type == PARLO_DOMAIN_TYPE_TOSKA ? "TOSKA"
                                                                    : "other";
  return {{"name", record.name},
          {"id", record.id},
          {"instance", record.instance},
          {"type", type},
          {"status", record.status == 1 ? "up" : "down"}};
}

Json domains() {
  if (!platform_has("parlo_system_request")) return nullptr;
  int count = 0;
  parlo_domain* records = nullptr;
  if (get_domains_info(nullptr, &count, &records) != 0) return nullptr;
  const std::unique_ptr<parlo_domain, decltype(&std::free)> owner(records, &std::free);
  Json list = Json::array();
  for (int i = 0; i < count; ++i) list.push_back(domain(records[i]));
  return list;
}

// Returns the answer of a query, or null.
template <typename Query, typename... Attribute>
Json capability(const Query& query, Attribute... attribute) {
  uint32_t value = 0;
  if (query(DSP_DOMAIN_CDSP, &value, attribute...) != 0) return nullptr;
  return value;
}

Json capabilities() {
  if (!platform_has("parlo_handle_control")) return nullptr;
  int domain_to_run_on = 0;
  const int status = get_dsp_support(&domain_to_run_on);
  if ((status & 0xff) == PARLO_CAPABILITY_UNSUPPORTED) return nullptr;

  Json architecture = capability(get_veyra_arch_ver);
  if (architecture.is_number()) architecture = architecture_version(architecture.get<uint32_t>());
  return {{"domain_to_run_on", status == 0 ? Json(domain_to_run_on) : Json()},
          {"architecture", architecture},
          {"ondra_128b", capability(get_ondra_support_info, DSP_ONDRA_SUPPORT_128B)},
          {"vtcm_page_bytes", capability(get_vtcm_info, DSP_VTCM_PAGE)},
          {"vtcm_pages", capability(get_vtcm_info, DSP_VTCM_COUNT)},
          {"tessel_spatial", capability(get_tessel_support_info, DSP_TESSEL_SUPPORT_SPATIAL)},
          {"tessel_depth", capability(get_tessel_support_info, DSP_TESSEL_SUPPORT_DEPTH)},
          {"unsigned_modules", get_unsignedpd_support()},
          {"asynchronous_calls", is_async_parlo_supported(DSP_DOMAIN_CDSP)},
          {"status_notification", is_status_notification_supported(DSP_DOMAIN_CDSP)}};
}

Json library() {
  return {{"version", MORUN_VERSION},
          {"vector_backends_built", vector_backends(MORUN_BACKENDS_BUILT)},
          {"vector_backends_supported", vector_backends(MORUN_BACKENDS_SUPPORTED)},
          {"vector_backend", vector_backends(MORUN_BACKENDS_IN_USE)}};
}

Json limits() {
  const tavik_options options = default_options();
  return {{"output_matrix_size_max", options.output_matrix_size_max},
          {"n_row_max", options.n_row_max},
          {"input_matrix_size_max", options.input_matrix_size_max},
          {"sessions", TAVIK_MAX_SESSIONS},
          {"buffers", TAVIK_MAX_BUFFERS},
          {"largest_descriptor", TAVIK_MAX_DESCRIPTOR}};
}

Json module_in_session() {
  tavik_options smallest = default_options();
  smallest.output_matrix_size_max = smallest.input_matrix_size_max = 32 * 32;
  smallest.n_row_max = 32;
  const Context context = open_context(smallest);

  uint32_t major = 0;
  uint32_t minor = 0;
  uint32_t patch = 0;
  uint32_t veyra_version = 0;
  char label[32] = "";
  if (tavik_veyra_get_version(context->session_handle[0], &major, &minor, &patch, label, sizeof label,
                              &veyra_version) != 0) {
    throw Error("the module does not tell its version");
  }
  int effective_domain = 0;
  const int status = get_effective_domain_id(domain_name, context->session_id[0], &effective_domain);
  return {{"version", fmt::format("{}.{}.{} {}", major, minor, patch, label)},
          {"compiled_for_architecture", veyra_version},
          {"effective_domain", status == 0 ? Json(effective_domain) : Json()}};
}

// Tells whether the versions of library and module match.
Json version_query() {
  const UpperInterface upper;
  const UpperVersions versions = upper_versions();
  const auto if_known = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
  return {{"library", if_known(versions.library)},
          {"dsp_module", if_known(versions.dsp_module)},
          {"status", versions.status}};
}

// A DSP that does not answer is a result too.
Json answer_of(Json (*ask)()) {
  try {
    return ask();
  } catch (const Error& error) {
    return {{"error", error.what()}};
  }
}

Json report() {
  const StandardOutputAside aside;  // the capability functions print their failures there
  return {{"library", library()},
          {"limits", limits()},
          {"platform", platform()},
          {"domains", domains()},
          {"compute_dsp", capabilities()},
          {"dsp_module", answer_of(module_in_session)},
          {"version_query", answer_of(version_query)}};
}

std::string text_of(const Json& value) {
  if (value.is_null()) return "not available";
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::string label_of(std::string key) {
  for (char& character : key) {
    if (character == '_') character = ' ';
  }
  return key;
}

void print_section(const Json& section) {
  for (const auto& [key, value] : section.items()) fmt::print("  {:<26} {}\n", label_of(key), text_of(value));
}

void print_domains(const Json& list) {
  for (const Json& entry : list) {
    fmt::print("  {:<26} id {}, instance {}, type {}, {}\n", text_of(entry["name"]), text_of(entry["id"]),
               text_of(entry["instance"]), text_of(entry["type"]), text_of(entry["status"]));
  }
}

void print_text(const Json& whole) {
  for (const auto& [key, section] : whole.items()) {
    fmt::print("{}{}\n", label_of(key), section.is_null() ? ": not available" : "");
    if (section.is_array()) print_domains(section);
    if (section.is_object()) print_section(section);
  }
}

}  // namespace

void info(const InfoArguments& arguments) {
  const Json whole = report();
  if (arguments.as_json) {
    fmt::print("{}\n", whole.dump(2));
  } else {
    print_text(whole);
  }
}

}  // namespace tool

// The entries that a platform may lack: parlo_handle_control, parlo_system_request, platform_debug_log*.
#define PARLO_IMPLEMENTATION

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <new>

#include "platform/emulator/client/domains.h"
#include "platform/emulator/client/platform.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

// ---- Capabilities ------------------------------------------------------------------------------------------------

int32_t find_capability(const Platform& p, uint32_t domain, uint32_t attribute, uint32_t& answer) {
  if (domain >= domains().size()) return PARLO_EMULATOR_UNSUPPORTED_DOMAIN;
  const bool up = domains()[domain].up, compute = domain == compute_domain;
  switch (attribute) {
    case PARLO_ATTRIBUTE_DOMAIN_SUPPORT:
      answer = up;
      return KESO_SUCCESS;
    case PARLO_ATTRIBUTE_ARCHITECTURE:
      answer = up ? p.config.architecture : 0;
      return KESO_SUCCESS;
    default:
      if (attribute >= p.profile.capabilities.size()) return PARLO_EMULATOR_BAD_ARGUMENT;
      answer = compute ? p.profile.capabilities[attribute] : 0;
      return KESO_SUCCESS;
  }
}

// ---- Domains -----------------------------------------------------------------------------------------------------

parlo_domain record_of(const Domain& domain) {
  parlo_domain record{};
  std::snprintf(record.name, sizeof record.name, "%s", domain.name);
  record.id = domain.id;
  record.type = domain.type;
  record.status = domain.up;
  return record;
}

int32_t list_domains(parlo_system_domains& record) {
  if (record.request != PARLO_SYSTEM_DOMAINS) return PARLO_EMULATOR_BAD_ARGUMENT;
  if (record.capacity != 0 && !record.domains) return PARLO_EMULATOR_BAD_ARGUMENT;
  record.count = 0;
  for (const Domain& domain : domains()) {
    if (record.type != PARLO_DOMAIN_TYPE_ALL && record.type != static_cast<uint32_t>(domain.type)) continue;
    if (record.count < record.capacity) record.domains[record.count] = record_of(domain);
    ++record.count;
  }
  return KESO_SUCCESS;
}

// ---- Debug log ---------------------------------------------------------------------------------------------------

constexpr int error_level = 3;  // this level and higher ones are traced without a filter

bool selects(const LogFilter& filter, int level, const char* file) {
  if (level < 0 || level > 31 || !(filter.level_mask >> level & 1)) return false;
  return filter.files.empty() || std::find(filter.files.begin(), filter.files.end(), file) != filter.files.end();
}

void write_log(int level, const char* file, int line_number, const char* line) {
  Platform& p = platform();
  const PlatformLock lock(p.mutex);
  if (!p.profile.has_debug_log) return;
  const bool selected = selects(p.log_filter, level, file);
  if (!selected && level < error_level) return;
  TracedCall call = make_call(PARLO_EMULATOR_DEBUG_LOG, {word(level), word(line_number)});
  set_text(call, line);
  call.begin = dsp::now();
  p.trace.record(call, 0, {});
  if (!selected && !p.trace.printing()) return;
  const std::string_view text(line);
  std::fprintf(stderr, "[parlo] level %d, %s:%d: %s%s", level, file, line_number, line,
               text.ends_with('\n') ? "" : "\n");
}

}  // namespace
}  // namespace parlo::client

using namespace parlo::client;

int parlo_handle_control(uint32_t request, void* record, uint32_t size) {
  const bool valid = request == PARLO_CONTROL_CAPABILITY && record && size == sizeof(parlo_capability);
  parlo_capability* query = valid ? static_cast<parlo_capability*>(record) : nullptr;
  TracedCall call =
      query ? make_call(PARLO_EMULATOR_HANDLE_CONTROL, {request, query->domain, query->attribute, query->capability})
            : make_call(PARLO_EMULATOR_HANDLE_CONTROL, {request});
  return carry_out(call, [&](Platform& p, PlatformLock&) {
    if (!p.profile.has_handle_control) return outcome_of(PARLO_EMULATOR_NO_SUCH_ENTRY);
    if (!query) return outcome_of(PARLO_EMULATOR_BAD_ARGUMENT);
    const int32_t status = find_capability(p, query->domain, query->attribute, query->capability);
    call.arguments[3] = query->capability;
    return outcome_of(status);
  });
}

int parlo_system_request(parlo_system_domains* record) {
  TracedCall call = record ? make_call(PARLO_EMULATOR_SYSTEM_REQUEST, {record->type, record->capacity, 0})
                           : make_call(PARLO_EMULATOR_SYSTEM_REQUEST, {});
  return carry_out(call, [&](Platform& p, PlatformLock&) {
    if (!p.profile.has_system_request) return outcome_of(PARLO_EMULATOR_NO_SUCH_ENTRY);
    if (!record) return outcome_of(PARLO_EMULATOR_BAD_ARGUMENT);
    const int32_t status = list_domains(*record);
    if (status == KESO_SUCCESS) call.arguments[2] = record->count;
    return outcome_of(status);
  });
}

void platform_debug_log(int level, const char* file, int line, const char* format, ...) {
  char text[1024] = "";
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  write_log(level, file ? file : "", line, text);
}

int platform_debug_log_configure(uint32_t level_mask, const char* const* files, uint16_t n_files) try {
  if (n_files != 0 && !files) return outcome_of(PARLO_EMULATOR_BAD_ARGUMENT).result;
  LogFilter filter{level_mask, {}};
  for (uint16_t i = 0; i < n_files; ++i)
    if (files[i]) filter.files.emplace_back(files[i]);
  const PlatformLock lock(platform().mutex);
  if (!platform().profile.has_debug_log) return outcome_of(PARLO_EMULATOR_NO_SUCH_ENTRY).result;
  platform().log_filter = std::move(filter);
  return KESO_SUCCESS;
} catch (const std::bad_alloc&) {
  return outcome_of(PARLO_EMULATOR_NO_MEMORY).result;
}

#include "platform/emulator/client/trace.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "remote/methods.h"

namespace parlo::client {
namespace {

namespace remote = tavik::remote;

struct Operation {
  const char* name;
  Argument arguments[6];
};

constexpr Format hex = Format::hexadecimal;

// In the order of parlo_emulator_operation.
constexpr Operation operations[] = {
    {"parlo_handle_open", {{"handle", hex}}},
    {"parlo_handle_invoke", {{"handle", hex}, {"scalars", hex}}},
    {"parlo_handle_close", {{"handle", hex}}},
    {"parlo_handle_control", {{"request"}, {"domain"}, {"attribute"}, {"capability", hex}}},
    {"parlo_session_control", {{"request"}, {"id"}, {"answer"}}},
    {"parlo_system_request", {{"type"}, {"capacity"}, {"count"}}},
    {"parlo_mem_alloc", {{"heap"}, {"flags", hex}, {"size"}, {"address", hex}}},
    {"parlo_mem_alloc2", {{"heap"}, {"flags", hex}, {"size"}, {"address", hex}}},
    {"parlo_mem_free", {{"address", hex}}},
    {"parlo_mem_to_fd", {{"address", hex}}},
    {"parlo_mmap", {{"domain"}, {"fd"}, {"address", hex}, {"offset"}, {"length"}, {"flags", hex}}},
    {"parlo_munmap", {{"domain"}, {"fd"}, {"address", hex}, {"length"}}},
    {"platform_debug_log", {{"level"}, {"line"}}},
};
static_assert(std::size(operations) == PARLO_EMULATOR_N_OPERATIONS);

void append(std::string& line, const Argument& argument, uint64_t value) {
  char text[64];
  const bool in_hex = argument.format == hex;
  std::snprintf(text, sizeof text, in_hex ? "%s=0x%" PRIx64 : "%s=%" PRId64, argument.name, value);
  if (line.back() != '(') line += ", ";
  line += text;
}

std::string describe(const parlo_emulator_call& call) {
  std::string line = std::string("[parlo] ") + operations[call.operation].name + '(';
  const auto add = [&line](const Argument& argument, uint64_t value) { append(line, argument, value); };
  if (call.text[0] != '\0') line.append("\"").append(call.text).append("\"");
  for_each_argument(call, add);
  if (const char* const name = method_name(call)) {
    line.append(", ").append(name).append("(");
    for_each_argument_of_method(call, add);
    line += ')';
  }
  return line + ')';
}

void print(const parlo_emulator_call& call, int error) {
  const std::string line = describe(call);
  if (error == 0)
    std::fprintf(stderr, "%s = %" PRId32 "\n", line.c_str(), call.result);
  else
    std::fprintf(stderr, "%s = 0x%" PRIx32 " (%s)\n", line.c_str(), static_cast<uint32_t>(call.result),
                 std::strerror(error));
}

}  // namespace

TracedCall make_call(parlo_emulator_operation operation, std::initializer_list<uint64_t> arguments) {
  TracedCall call{};
  call.operation = operation;
  call.method = -1;
  call.n_arguments = static_cast<uint32_t>(arguments.size());
  std::copy(arguments.begin(), arguments.end(), call.arguments);
  return call;
}

void set_text(parlo_emulator_call& call, std::string_view text) {
  const size_t length = std::min(text.size(), sizeof call.text - 1);
  std::copy_n(text.data(), length, call.text);
  call.text[length] = '\0';
}

const char* method_name(const parlo_emulator_call& call) {
  const bool is_known = call.method >= 0 && call.method < static_cast<int32_t>(remote::methods.size());
  return is_known ? remote::methods[static_cast<uint32_t>(call.method)].name : nullptr;
}

void for_each_argument(const parlo_emulator_call& call, const UseArgument& use) {
  const Operation& operation = operations[call.operation];
  const size_t n = method_name(call) ? 1 : std::min<size_t>(call.n_arguments, std::size(operation.arguments));
  for (size_t i = 0; i < n && operation.arguments[i].name; ++i) use(operation.arguments[i], call.arguments[i]);
}

// The words of the primitive input buffer stand behind handle and scalars word.
void for_each_argument_of_method(const parlo_emulator_call& call, const UseArgument& use) {
  if (!method_name(call)) return;
  uint32_t next = 2;
  for (const remote::Parameter& parameter : remote::methods[static_cast<uint32_t>(call.method)].parameters) {
    using enum remote::ParameterKind;
    const bool sends_word = parameter.kind == scalar_in || parameter.kind == text_out;
    if (sends_word && next < call.n_arguments) use({parameter.name}, call.arguments[next++]);
  }
}

void Trace::choose_output() {
  const char* const value = secure_getenv("PARLO_TRACE");
  const std::string_view chosen(value ? value : "");
  printing_ = chosen == "1";
  timeline_.choose(printing_ ? "" : chosen);
}

void Trace::record(const TracedCall& call, int error, const Counters& counters) try {
  if (printing_ && call.operation != PARLO_EMULATOR_DEBUG_LOG) print(call, error);
  timeline_.add(call, error, counters);
  if (calls_.size() < PARLO_EMULATOR_TRACE_CAPACITY)
    calls_.push_back(call);
  else
    calls_[n_call_ % PARLO_EMULATOR_TRACE_CAPACITY] = call;
  ++n_call_;
} catch (const std::bad_alloc&) {
}

const parlo_emulator_call* Trace::at(size_t index) const {
  if (index >= n_call_ || index + calls_.size() < n_call_) return nullptr;
  return &calls_[index % PARLO_EMULATOR_TRACE_CAPACITY];
}

void Trace::clear() {
  calls_ = {};
  n_call_ = 0;
}

}  // namespace parlo::client

const char* parlo_emulator_operation_name(int32_t operation) {
  const bool known = operation >= 0 && operation < PARLO_EMULATOR_N_OPERATIONS;
  return known ? parlo::client::operations[operation].name : "unknown";
}

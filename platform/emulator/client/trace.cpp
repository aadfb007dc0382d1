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

enum class Format : uint8_t { decimal, hexadecimal };

struct Argument {
  const char* name;
  Format format = Format::decimal;
};

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

// Appends "veyra_test(size=1, v_fd=7)" and the like, from the words of the primitive input buffer.
void append_method(std::string& line, const parlo_emulator_call& call) {
  const remote::Method& method = remote::methods[static_cast<uint32_t>(call.method)];
  line.append(", ").append(method.name).append("(");
  uint32_t next = 2;
  for (const remote::Parameter& parameter : method.parameters) {
    using enum remote::ParameterKind;
    const bool sends_word = parameter.kind == scalar_in || parameter.kind == text_out;
    if (sends_word && next < call.n_arguments) append(line, {parameter.name}, call.arguments[next++]);
  }
  line += ')';
}

std::string describe(const parlo_emulator_call& call) {
  const Operation& operation = operations[call.operation];
  std::string line = std::string("[parlo] ") + operation.name + '(';
  if (call.text[0] != '\0') line.append("\"").append(call.text).append("\"");
  const bool known_method = call.method >= 0 && call.method < static_cast<int32_t>(remote::methods.size());
  const size_t n_argument = known_method ? 1 : std::min<size_t>(call.n_arguments, std::size(operation.arguments));
  for (size_t i = 0; i < n_argument && operation.arguments[i].name; ++i)
    append(line, operation.arguments[i], call.arguments[i]);
  if (known_method) append_method(line, call);
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

parlo_emulator_call make_call(parlo_emulator_operation operation, std::initializer_list<uint64_t> arguments) {
  parlo_emulator_call call{};
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

void Trace::choose_output() {
  const char* value = std::getenv("PARLO_TRACE");
  printing_ = value && std::string_view(value) == "1";
}

void Trace::record(const parlo_emulator_call& call, int error) try {
  if (printing_ && call.operation != PARLO_EMULATOR_DEBUG_LOG) print(call, error);
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

// The interface description. The compiler computes it from the table of methods.
#include <array>
#include <string_view>

#include "include/tavik_remote.h"
#include "remote/methods.h"

namespace tavik::remote {
namespace {

// Calls visit(name) for each method's name and its parameters' names, in the order of the name table.
template <class Visit>
constexpr void for_each_name(Visit visit) {
  for (const Method& method : methods) {
    visit(std::string_view(method.name));
    for (size_t i = 0; i < method.n_parameters(); ++i) visit(std::string_view(method.parameters[i].name));
  }
}

constexpr size_t n_names = [] {
  size_t n = 0;
  for_each_name([&](std::string_view) { ++n; });
  return n;
}();
constexpr size_t n_characters = [] {
  size_t n = 0;
  for_each_name([&](std::string_view name) { n += name.size() + 1; });
  return n;
}();
constexpr size_t n_parameters = n_names - n_methods;

constexpr auto characters = [] {
  std::array<char, n_characters> pool{};
  size_t end = 0;
  for_each_name([&](std::string_view name) {
    for (const char c : name) pool[end++] = c;
    ++end;
  });
  return pool;
}();

constexpr auto names = [] {
  std::array<uint16_t, n_names> offsets{};
  size_t i = 0, end = 0;
  for_each_name([&](std::string_view name) {
    offsets[i++] = static_cast<uint16_t>(end);
    end += name.size() + 1;
  });
  return offsets;
}();

constexpr auto method_names = [] {
  std::array<uint16_t, n_methods> indices{};
  size_t index = 0;
  for (const Method& method : methods) {
    indices[method.number] = static_cast<uint16_t>(index);
    index += 1 + method.n_parameters();
  }
  return indices;
}();

constexpr tavik_slim_parameter uri = {TAVIK_SLIM_STRING, 16, 8, TAVIK_SLIM_IN};
constexpr tavik_slim_parameter handle_out = {TAVIK_SLIM_REMOTE_HANDLE, 8, 8, TAVIK_SLIM_OUT};
constexpr tavik_slim_parameter handle_in = {TAVIK_SLIM_REMOTE_HANDLE, 8, 8, TAVIK_SLIM_IN};
constexpr tavik_slim_parameter scalar_in = {TAVIK_SLIM_UINT32, 4, 4, TAVIK_SLIM_IN};
constexpr tavik_slim_parameter scalar_out = {TAVIK_SLIM_UINT32, 4, 4, TAVIK_SLIM_OUT};
constexpr tavik_slim_parameter text_out = {TAVIK_SLIM_CHARACTERS, 16, 8, TAVIK_SLIM_OUT};

constexpr const tavik_slim_parameter* record_of(ParameterKind kind) {
  switch (kind) {
    case ParameterKind::uri:
      return &uri;
    case ParameterKind::handle_out:
      return &handle_out;
    case ParameterKind::handle_in:
      return &handle_in;
    case ParameterKind::scalar_in:
      return &scalar_in;
    case ParameterKind::scalar_out:
      return &scalar_out;
    case ParameterKind::text_out:
      return &text_out;
    case ParameterKind::none:
      break;
  }
  return nullptr;
}

constexpr auto parameters = [] {
  std::array<const tavik_slim_parameter*, n_parameters> list{};
  size_t end = 0;
  for (const Method& method : methods)
    for (size_t i = 0; i < method.n_parameters(); ++i) list[end++] = record_of(method.parameters[i].kind);
  return list;
}();

// Alignments of the primitive buffers, in bytes. The interface description uses 1 or 0 when there is no such buffer.
struct Alignments {
  uint8_t in, out;
};
constexpr Alignments alignments_of(const Method& method) {
  if (method.count(ParameterKind::uri) != 0) return {4, 1};
  if (method.count(ParameterKind::handle_in) != 0) return {1, 0};
  if (method.primitive_out_bytes() != 0) return {4, 4};
  return {static_cast<uint8_t>(method.primitive_in_bytes() != 0 ? 4 : 0), 0};
}

constexpr auto method_records = [] {
  std::array<tavik_slim_method, n_methods> records{};
  size_t first_parameter = 0;
  for (const Method& method : methods) {
    const Alignments alignments = alignments_of(method);
    const uint32_t n = method.n_parameters();
    // A text from the DSP counts as two more arguments: its length in the input and its length in the output.
    const uint32_t max_arguments = n + 2 * method.count(ParameterKind::text_out);
    records[method.number] = {method.buffer_counts(),
                              method.primitive_in_bytes(),
                              method.primitive_out_bytes(),
                              static_cast<uint16_t>(max_arguments),
                              static_cast<uint16_t>(n),
                              n == 0 ? nullptr : parameters.data() + first_parameter,
                              alignments.in,
                              alignments.out};
    first_parameter += n;
  }
  return records;
}();

}  // namespace
}  // namespace tavik::remote

constinit const tavik_slim_interface tavik_slim = {
    .n_methods = tavik::remote::n_methods,
    .methods = tavik::remote::method_records.data(),
    .n_interface_ids = 0,
    .interface_ids = nullptr,
    .method_names = tavik::remote::method_names.data(),
    .names = tavik::remote::names.data(),
    .characters = tavik::remote::characters.data(),
};

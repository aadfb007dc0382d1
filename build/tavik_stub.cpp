// The client stub of the remote interface. Each function packs a method's arguments into one invocation, as the table
// of methods says.
#include <cerrno>
#include <type_traits>

#include "include/tavik_remote.h"
#include "remote/methods.h"

namespace tavik::remote {
namespace {

// The name of the marshalling routine that the log line of a failure shows. Methods with the same number of scalars
// share a name. Names and line numbers are published interface and name no place in this file.
struct Routine {
  uint32_t n_scalars;
  const char* name;
  int line;
};
constexpr Routine reported_routines[] = {
    {0, "_stub_method", 300},   {2, "_stub_method_6", 453}, {4, "_stub_method_1", 320},  {5, "_stub_method_3", 386},
    {7, "_stub_method_4", 409}, {9, "_stub_method_2", 365}, {10, "_stub_method_5", 435},
};
constexpr Routine reported_version_routine = {0, "_stub_method_7", 521};

constexpr const Routine* routine_of(const Method& method) {
  if (method.number == get_version_method) return &reported_version_routine;
  for (const Routine& routine : reported_routines)
    if (routine.n_scalars == method.n_parameters()) return &routine;
  return nullptr;
}

// The platform has operations of its own for opening and closing.
constexpr bool is_invoked(const Method& method) {
  return method.number != open_method && method.number != close_method;
}
static_assert(are_all_methods([](const Method& method) { return !is_invoked(method) || routine_of(method); }),
              "no method had so many scalars yet: name the routine of these methods in reported_routines");

// Writes a failure to the platform's debug log, if the platform has one.
void log_failure(const Method& method, uint64_t handle, int status) {
  if (platform_debug_log == nullptr) return;
  constexpr int error_level = 3;
  const Routine& routine = *routine_of(method);
  const int error_number = errno;  // callers put errno into their error record next
  platform_debug_log(error_level, "build/tavik_stub", routine.line,
                     "ERROR 0x%x: handle=0x%lx, scalar=0x%x, method ID=%d: %s failed\n", static_cast<unsigned>(status),
                     static_cast<unsigned long>(handle), method.scalars(), static_cast<int>(method.number),
                     routine.name);
  errno = error_number;
}

int invoke(const Method& method, uint64_t handle, parlo_argument* arguments) {
  const int status = parlo_handle_invoke(handle, method.scalars(), arguments);
  if (status != KESO_SUCCESS) log_failure(method, handle, status);
  return status;
}

template <class Arguments>
int invoke_scalar_method(uint64_t handle, Arguments arguments) {
  constexpr const Method& method = methods[Arguments::method];
  if constexpr (method.primitive_in_bytes() == 0) {
    return invoke(method, handle, nullptr);
  } else {
    static_assert(sizeof arguments == method.primitive_in_bytes());
    parlo_argument primitive_in = {&arguments, sizeof arguments};
    return invoke(method, handle, &primitive_in);
  }
}

}  // namespace
}  // namespace tavik::remote

int tavik_open(const char* uri, uint64_t* handle) {
  return parlo_handle_open(uri, handle);
}

int tavik_close(uint64_t handle) {
  return parlo_handle_close(handle);
}

// Defines one function for each row of TAVIK_SCALAR_METHODS in remote/methods.h, under the name in that row.
#define TAVIK_STUB_TYPE(name) , uint32_t
#define TAVIK_STUB_PARAMETER(name) , uint32_t name
#define TAVIK_STUB_ARGUMENT(name) name,
#define TAVIK_STUB(number, function, ...)                                                                       \
  static_assert(std::is_same_v<decltype(function), int(uint64_t TAVIK_FOR_EACH(TAVIK_STUB_TYPE, __VA_ARGS__))>, \
                #function " has other parameters in include/tavik_remote.h than in remote/methods.h");          \
  int function(uint64_t handle TAVIK_FOR_EACH(TAVIK_STUB_PARAMETER, __VA_ARGS__)) {                             \
    return tavik::remote::invoke_scalar_method(                                                                 \
        handle, tavik::remote::function##_arguments{TAVIK_FOR_EACH(TAVIK_STUB_ARGUMENT, __VA_ARGS__)});         \
  }
TAVIK_SCALAR_METHODS(TAVIK_STUB)
#undef TAVIK_STUB
#undef TAVIK_STUB_ARGUMENT
#undef TAVIK_STUB_PARAMETER
#undef TAVIK_STUB_TYPE

int tavik_veyra_get_version(uint64_t handle, uint32_t* major, uint32_t* minor, uint32_t* patch, char* version_prerel,
                            uint32_t version_prerel_length, uint32_t* veyra_version) {
  uint32_t numbers[4] = {};
  parlo_argument arguments[] = {{&version_prerel_length, sizeof version_prerel_length},
                                {numbers, sizeof numbers},
                                {version_prerel, version_prerel_length}};
  const int status =
      tavik::remote::invoke(tavik::remote::methods[tavik::remote::get_version_method], handle, arguments);
  if (status != KESO_SUCCESS) return status;
  *major = numbers[0];
  *minor = numbers[1];
  *patch = numbers[2];
  if (version_prerel_length != 0) version_prerel[version_prerel_length - 1] = '\0';
  *veyra_version = numbers[3];
  return status;
}

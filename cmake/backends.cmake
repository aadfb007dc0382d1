# The vector backends of simd/. What uses the vocabulary is compiled once for each backend of the build; everything else
# is compiled for the baseline of the architecture.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(all_backends portable neon)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  set(all_backends portable avx2 avx512 avx512_vnni avx512_fp16)
else()
  set(all_backends portable)
endif()
list(JOIN all_backends ", " backend_names)
set(MORUN_SIMD all CACHE STRING "vector backend: all (chosen at run time), ${backend_names}")
set_property(CACHE MORUN_SIMD PROPERTY STRINGS all ${all_backends})
if(MORUN_SIMD STREQUAL "all")
  set(MORUN_BACKENDS ${all_backends})
elseif(MORUN_SIMD IN_LIST all_backends)
  set(MORUN_BACKENDS ${MORUN_SIMD})
else()
  message(FATAL_ERROR "MORUN_SIMD is \"${MORUN_SIMD}\"; it takes all, ${backend_names}")
endif()

list(TRANSFORM MORUN_BACKENDS REPLACE "(.+)" "X(\\1, __VA_ARGS__)" OUTPUT_VARIABLE built_backends)
list(JOIN built_backends " " built_backends)
configure_file(simd/morun_built_backends.h.in generated/morun_built_backends.h @ONLY)

set(flags_portable "")
set(flags_neon -march=armv8.2-a+fp16)
set(flags_avx2 -march=x86-64-v3)
set(flags_avx512 -march=x86-64-v4)
set(flags_avx512_vnni -march=x86-64-v4 -mavx512vnni)
set(flags_avx512_fp16 -march=x86-64-v4 -mavx512vnni -mavx512fp16)

# Sets what a source that uses the vocabulary is compiled with.
function(morun_backend_options target backend)
  string(TOUPPER "${backend}" family)
  string(REGEX REPLACE "_.*" "" family "${family}")
  target_compile_options(${target} PRIVATE ${flags_${backend}})
  # GCC 12 takes the undefined registers in its own header for uninitialised variables.
  if(backend MATCHES "^avx512" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-uninitialized -Wno-maybe-uninitialized)
  endif()
  target_compile_definitions(${target} PRIVATE MORUN_BACKEND=${backend} MORUN_SIMD_${family})
endfunction()

# Compiles the sources once for each backend, with the options of the target, and lists the results in ${table}_objects.
# Each backend becomes one object file, from which a single name leaves: ${table}_${backend}. All other names are local to
# the file. Without that, the linker would keep one copy of an inline function or template for all backends, and a
# processor could meet instructions that it lacks. The code of a backend stands in a section of its own,
# .morun.${backend}.
function(morun_compile_backends target table)
  set(objects "")
  foreach(backend IN LISTS MORUN_BACKENDS)
    set(part ${target}_${backend})
    add_library(${part} OBJECT ${ARGN})
    morun_backend_options(${part} ${backend})
    # GCC's symbols of the kind "unique" cannot be made local.
    target_compile_options(${part} PRIVATE "$<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>")
    foreach(property IN ITEMS COMPILE_OPTIONS COMPILE_DEFINITIONS INCLUDE_DIRECTORIES)
      set_property(TARGET ${part} APPEND PROPERTY ${property} "$<TARGET_PROPERTY:${target},${property}>")
    endforeach()
    target_compile_options(${part} PRIVATE "$<$<BOOL:${MORUN_SANITIZE}>:-O1>")  # even where the target asks for -O0
    set_target_properties(${part} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 5)
    set(object "${CMAKE_CURRENT_BINARY_DIR}/${part}.o")
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${part}.ld")
    file(CONFIGURE OUTPUT "${script}" CONTENT "SECTIONS { .morun.${backend} : { *(.text .text.*) } }\n")
    add_custom_command(OUTPUT "${object}"
      COMMAND "${CMAKE_CXX_COMPILER}" -r -nostdlib "-Wl,--force-group-allocation,-T,${script}" -o "${object}.all"
        "$<TARGET_OBJECTS:${part}>"
      COMMAND "${CMAKE_OBJCOPY}" "--keep-global-symbol=${table}_${backend}" "${object}.all" "${object}"
      DEPENDS ${part} "$<TARGET_OBJECTS:${part}>"
      COMMAND_EXPAND_LISTS VERBATIM)
    list(APPEND objects "${object}")
  endforeach()
  set_source_files_properties(${objects} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
  set(${table}_objects ${objects} PARENT_SCOPE)
  set_property(TARGET ${target} PROPERTY MORUN_BACKEND_OBJECTS ${objects})
  add_custom_target(${target}_backends DEPENDS ${objects})
endfunction()

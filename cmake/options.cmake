# Options for every target of this project, and for no target of a project that adds this one: language, warnings,
# floating point, hardening, sanitizers, output folders.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# For C++, only clang includes changes of signedness in -Wconversion.
add_compile_options("$<$<COMPILE_LANGUAGE:CXX>:-Wno-sign-conversion>")
option(MORUN_WERROR "warnings are errors" OFF)
if(MORUN_WERROR)
  add_compile_options(-Werror)
endif()
# Compilers must not fuse a multiplication and an addition by themselves. The code asks for a fused operation
# explicitly.
add_compile_options(-ffp-contract=off)
# The out-of-line atomics of 64-bit Arm's compilers need a constructor that asks for the processor, and are not compiled for
# BTI: one of them takes the mark of BTI from a whole file.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  add_compile_options(-mno-outline-atomics)
endif()
include_directories("${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}/generated")

option(MORUN_SANITIZE "address and undefined-behaviour sanitizers" OFF)
if(MORUN_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=address,undefined)
endif()

# These options make a fault harder to exploit. Optimised code checks its stack and its library calls, all symbols are
# bound before the program starts, and indirect jumps land only at marked places. The sanitizers check more, and need
# plain library calls.
option(MORUN_HARDENING "stack protector, FORTIFY, RELRO, BIND_NOW, and CET or BTI" ON)
if(MORUN_HARDENING AND NOT MORUN_SANITIZE)
  add_compile_options(-fstack-protector-strong)
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    add_compile_options(-mbranch-protection=standard)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    add_compile_options(-fcf-protection=full)
  endif()
  add_link_options(LINKER:-z,relro LINKER:-z,now)
endif()

option(MORUN_DEBUG_INFO "debug information in the libraries, for debuggers and for the test of the binary interface" OFF)
# Following each variable through optimised code takes GCC a fifth of a compilation.
set(MORUN_DEBUG_OPTIONS "$<$<BOOL:${MORUN_DEBUG_INFO}>:-g;$<$<CXX_COMPILER_ID:GNU>:-fno-var-tracking>>")

# Gives a target's code to the sanitizers without optimisation. JSON and formatting, optimised and instrumented, take three
# times as long to compile.
function(morun_sanitize_without_optimisation target)
  target_compile_options(${target} PRIVATE "$<$<BOOL:${MORUN_SANITIZE}>:-O0>")
endfunction()

# What `cpack` makes: one archive of everything (cpack -G TGZ), or one Debian package of each component (cpack -G DEB, in a
# tree with MORUN_DEBIAN). `scripts/package` makes both for each processor.
set(prerelease "")
if(MORUN_PRERELEASE)
  set(prerelease "-${MORUN_PRERELEASE}")
endif()
set(architectures_x86_64 amd64)
set(architectures_aarch64 arm64)
set(architecture "${architectures_${CMAKE_SYSTEM_PROCESSOR}}")
string(REPLACE "-" "~" debian_version "${PROJECT_VERSION}${prerelease}-")
string(REGEX REPLACE "~$" "-1" debian_version "${debian_version}")

set(CPACK_PACKAGE_NAME morun)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}${prerelease}")
set(CPACK_PACKAGE_FILE_NAME "morun-${CPACK_PACKAGE_VERSION}-linux-${architecture}")
set(CPACK_PACKAGE_CONTACT "libmorun maintainers <maintainers@libmorun.example>")
set(CPACK_RESOURCE_FILE_LICENSE "${PROJECT_SOURCE_DIR}/LICENSE")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL "")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION "${debian_version}")
set(CPACK_DEBIAN_PACKAGE_RELEASE "")
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${architecture}")
set(CPACK_DEBIAN_PACKAGE_SOURCE morun)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(debian "${PROJECT_SOURCE_DIR}/cmake/debian")
set(scratch "${PROJECT_BINARY_DIR}/debian")
file(WRITE "${scratch}/changelog"
  "morun (${debian_version}) unstable; urgency=medium\n\n  * Packages of this version; the changes stand in changelog.gz.\n\n"
  " -- ${CPACK_PACKAGE_CONTACT}  Sun, 22 Nov 2026 12:00:00 +0000\n")
# Writes the one file of the source tree or of the scratch folder, compressed and without a time stamp.
function(compress from to)
  execute_process(COMMAND gzip -9nc "${from}" OUTPUT_FILE "${to}" COMMAND_ERROR_IS_FATAL ANY)
endfunction()
if(MORUN_DEBIAN)
  compress("${scratch}/changelog" "${scratch}/changelog.Debian.gz")
  compress("${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${scratch}/changelog.gz")
endif()

# Makes a component the Debian package of that name. The dependencies are all but those that the package's own files have on
# libraries of Debian's; cmake/debian/dependencies.cmake adds these.
function(debian_package component package section summary)
  cmake_parse_arguments(PARSE_ARGV 4 package "" "SHARED_LIBRARY;DESCRIPTION" "DEPENDS;SUGGESTS;CONTROL")
  string(TOUPPER "${component}" name)
  macro(declare variable)
    set("${variable}" "${ARGN}" PARENT_SCOPE)
  endmacro()
  string(REGEX REPLACE " *\n *" "\n" description "${package_DESCRIPTION}")
  list(JOIN package_DEPENDS ", " depends)
  list(JOIN package_SUGGESTS ", " suggests)
  declare(CPACK_DEBIAN_${name}_PACKAGE_NAME "${package}")
  declare(CPACK_DEBIAN_${name}_PACKAGE_SECTION "${section}")
  declare(CPACK_DEBIAN_${name}_DESCRIPTION "${summary}\n${description}")
  declare(CPACK_DEBIAN_${name}_PACKAGE_DEPENDS "${depends}")
  declare(CPACK_DEBIAN_${name}_PACKAGE_SUGGESTS "${suggests}")
  declare(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component})

  # A package with a shared library says which programs need it, and has the loader's cache renewed.
  set(control ${package_CONTROL})
  if(package_SHARED_LIBRARY)
    file(WRITE "${scratch}/${package}/shlibs" "${package_SHARED_LIBRARY} ${PROJECT_VERSION_MAJOR} ${package} (>= ${oldest})\n")
    file(WRITE "${scratch}/${package}/triggers" "activate-noawait ldconfig\n")
    list(APPEND control "${scratch}/${package}/shlibs" "${scratch}/${package}/triggers")
  endif()
  declare(CPACK_DEBIAN_${name}_PACKAGE_CONTROL_EXTRA ${control})

  if(MORUN_DEBIAN)
    set(documents "${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}")
    install(FILES "${debian}/copyright" "${scratch}/changelog.Debian.gz" "${scratch}/changelog.gz"
      DESTINATION "${documents}" COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES "${debian}/overrides" DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides" RENAME "${package}"
      COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
endfunction()

# The oldest version with the interfaces of this one, and this very version.
string(REGEX REPLACE "-1$" "" oldest "${debian_version}")
set(same "(= ${debian_version})")

debian_package(library libmorun1 libs "dense matrix products on the matrix unit of a DSP"
  SHARED_LIBRARY libmorun SUGGESTS libparlo-emulator
  DESCRIPTION "libmorun multiplies dense matrices on the matrix unit of a DSP: half-precision
    matrices, and 8-bit activations with 8-bit or 4-bit weights.
    .
    The library runs where the system has a libparlo.so for its DSP. On other
    machines the package libparlo-emulator takes the place of the DSP.")
debian_package(development libmorun-dev libdevel "dense matrix products on a DSP - development files"
  DEPENDS "libmorun1 ${same}" SUGGESTS libparlo-emulator
  DESCRIPTION "libmorun multiplies dense matrices on the matrix unit of a DSP.
    .
    This package contains what programs in C and C++ are compiled with: headers,
    a CMake package and a file for pkg-config.")
if(MORUN_PARLO STREQUAL "emulator")
  debian_package(emulator libparlo-emulator devel "emulated DSP for programs that use libmorun"
    DESCRIPTION "Programs that use libmorun run on a DSP. Where this package is installed they
      run on an emulated one: shared memory, sessions and a software matrix unit,
      in the program's own process or in a process for each session.
      .
      The emulated libparlo.so has a folder of its own, and hides no libparlo.so of
      the system from other programs. A header controls the emulator's limits and
      makes calls fail on purpose.")
endif()
if(MORUN_WEIGHTS)
  debian_package(weights libmorun-weights1 libs "weight files of libmorun"
    SHARED_LIBRARY libmorun_weights DEPENDS "libmorun1 (>= ${oldest})"
    DESCRIPTION "libmorun_weights packs the weights of a checkpoint into a file whose matrices
      a DSP reads as they are, and loads packed files into memory that the DSP
      sees. The files are in the safetensors format.")
  debian_package(weights_development libmorun-weights-dev libdevel "weight files of libmorun - development files"
    DEPENDS "libmorun-dev ${same}" "libmorun-weights1 ${same}"
    DESCRIPTION "libmorun_weights packs the weights of a checkpoint for a DSP, and loads packed
      files.
      .
      This package contains what programs in C and C++ are compiled with: headers,
      CMake targets and a file for pkg-config.")
endif()
if(MORUN_TOOL)
  debian_package(tool morun-tools utils "matrix products on a DSP, from the command line"
    DEPENDS "libmorun1 (>= ${oldest})" "libmorun-weights1 (>= ${oldest})" SUGGESTS libparlo-emulator
    DESCRIPTION "The command morun multiplies matrices in .npy files on the matrix unit of a
      DSP, packs the weights of checkpoints, compares every kernel of libmorun with
      an independent product, and times the kernels.")
endif()
if(MORUN_WEIGHTS AND NOT CMAKE_CROSSCOMPILING)
  debian_package(python python3-morun python "dense matrix products on a DSP - Python package"
    DEPENDS "python3 (>= 3.11)" python3-numpy "libmorun1 (>= ${oldest})" "libmorun-weights1 (>= ${oldest})"
    SUGGESTS python3-onnx python3-matplotlib libparlo-emulator
    CONTROL "${debian}/python/postinst" "${debian}/python/prerm"
    DESCRIPTION "The package morun takes NumPy arrays and gives NumPy arrays. It multiplies them
      on the matrix unit of a DSP by libmorun, packs and loads weights, and runs
      ONNX models layer by layer.")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
endif()

# What cmake/debian/dependencies.cmake reads.
set(CPACK_MORUN_BUILD "${PROJECT_BINARY_DIR}")
set(CPACK_MORUN_DEBIAN "${MORUN_DEBIAN}")
set(CPACK_MORUN_CROSS_LIBRARIES "${CMAKE_FIND_ROOT_PATH}/lib")
set(CPACK_PROJECT_CONFIG_FILE "${debian}/dependencies.cmake")
include(CPack)

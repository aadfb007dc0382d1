# What `cmake --install` puts where, by components:
#   library               libmorun.so.N
#   development           public headers but those for weight files, the link libmorun.so or the static libmorun.a, the CMake
#                         package, morun.pc
#   weights               the companion for weight files: libmorun_weights.so.N
#   weights_development   its headers, the link libmorun_weights.so or the static libmorun_weights.a, its target, morun_weights.pc
#   tool                  the tool, its completion for bash and, once the target `manuals` is built, its manual pages
#   emulator              the emulated platform: its libparlo.so and parlo-dsp, control header, target and parlo_emulator.pc
#   python                the Python package, where it is asked for by name
# The licence goes with each of them. No installed file names the prefix, so the installed tree may be moved.

# Debian's folder of libraries has the processor in its name, and each of its packages has a folder of documents of its own.
option(MORUN_DEBIAN "the layout of Debian's packages" OFF)
if(MORUN_DEBIAN)
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_SYSTEM_PROCESSOR}-linux-gnu")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The emulator has folders of its own, which no loader searches by itself. libmorun.so searches there first (see its run
# path below) and then in the system's folders. Without the emulator it finds the vendor's libparlo.so.
set(emulator_libdir "${CMAKE_INSTALL_LIBDIR}/parlo_emulator")
set(emulator_includedir "${CMAKE_INSTALL_INCLUDEDIR}/parlo_emulator")
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/morun")

install(TARGETS morun EXPORT morun
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT development
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(DIRECTORY include/ DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development FILES_MATCHING PATTERN "*.h"
  PATTERN "*.hpp" PATTERN "morun_weights.*" EXCLUDE)
install(FILES platform/parlo.h DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)
if(NOT MORUN_DEBIAN)
  foreach(component IN ITEMS library development weights weights_development tool emulator)
    install(FILES LICENSE DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/morun" COMPONENT ${component})
  endforeach()
endif()
install(EXPORT morun NAMESPACE morun:: FILE morunTargets.cmake DESTINATION "${package_dir}" COMPONENT development)

configure_package_config_file(cmake/morunConfig.cmake.in package/morunConfig.cmake INSTALL_DESTINATION "${package_dir}"
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(package/morunConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/package/morunConfig.cmake" "${PROJECT_BINARY_DIR}/package/morunConfigVersion.cmake"
  DESTINATION "${package_dir}" COMPONENT development)

# Paths in these files are relative to the file itself.
file(RELATIVE_PATH prefix "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
file(RELATIVE_PATH includedir "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
function(install_pkg_config_file name component)
  configure_file("cmake/${name}.in" "package/${name}" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/package/${name}" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT "${component}")
endfunction()
# When the emulator is installed beside the library, a program with the static library runs on the emulator, as a
# program with the shared library does. Linking a program with the shared library needs no libparlo.so on the linking
# machine.
get_target_property(type morun TYPE)
if(type STREQUAL "STATIC_LIBRARY")
  set(emulator "\${libdir}/parlo_emulator")
  set(link_line "-lmorun -L${emulator} -Wl,-rpath,${emulator} -lparlo -lm")
else()
  set(link_line "-lmorun -Wl,--allow-shlib-undefined")
endif()
install_pkg_config_file(morun.pc development)

if(MORUN_WEIGHTS)
  set_target_properties(morun_weights PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS morun_weights EXPORT morun_weights
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT weights NAMELINK_COMPONENT weights_development
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT weights_development
    INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
  install(FILES include/morun_weights.h include/morun_weights.hpp DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    COMPONENT weights_development)
  install(EXPORT morun_weights NAMESPACE morun:: FILE morun_weightsTargets.cmake DESTINATION "${package_dir}"
    COMPONENT weights_development)
  # A program with the static library is linked with the C++ runtime, whatever it is written in.
  set(private_libraries "")
  if(type STREQUAL "STATIC_LIBRARY")
    set(private_libraries "-lstdc++ -pthread")
  endif()
  install_pkg_config_file(morun_weights.pc weights_development)
endif()

if(MORUN_PARLO STREQUAL "emulator")
  set_target_properties(morun PROPERTIES INSTALL_RPATH "$ORIGIN/parlo_emulator")
  install(TARGETS parlo_emulator EXPORT parlo_emulator
    LIBRARY DESTINATION "${emulator_libdir}" COMPONENT emulator
    INCLUDES DESTINATION "${emulator_includedir}")
  install(TARGETS parlo_dsp RUNTIME DESTINATION "${emulator_libdir}" COMPONENT emulator)
  install(DIRECTORY platform/emulator/profiles DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/parlo_emulator" COMPONENT emulator)
  install(FILES platform/parlo.h platform/emulator/parlo_emulator.h
    DESTINATION "${emulator_includedir}" COMPONENT emulator)
  install(EXPORT parlo_emulator NAMESPACE morun:: FILE parlo_emulatorTargets.cmake
    DESTINATION "${package_dir}" COMPONENT emulator)
  install_pkg_config_file(parlo_emulator.pc emulator)
endif()

if(MORUN_TOOL)
  file(RELATIVE_PATH library_from_tool "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_target_properties(morun_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${library_from_tool}")
  install(TARGETS morun_tool RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tool)
  # The manual pages are those of the tool's own help.
  set(manuals "${PROJECT_BINARY_DIR}/manuals")
  add_custom_target(manuals COMMAND "${PROJECT_SOURCE_DIR}/tools/morun/manuals" "${manuals}" ${CMAKE_CROSSCOMPILING_EMULATOR}
    "$<TARGET_FILE:morun_tool>" DEPENDS morun_tool VERBATIM)
  install(DIRECTORY "${manuals}/" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tool OPTIONAL)
  install(FILES tools/morun/completion.bash DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions"
    RENAME morun COMPONENT tool)
endif()

# For the processor at hand only: the package is the same for all.
if(MORUN_WEIGHTS AND NOT CMAKE_CROSSCOMPILING)
  install(CODE "set(source \"${PROJECT_SOURCE_DIR}/python\")\nset(scratch \"${PROJECT_BINARY_DIR}/python\")"
    COMPONENT python EXCLUDE_FROM_ALL)
  install(SCRIPT cmake/install_python.cmake COMPONENT python EXCLUDE_FROM_ALL)
endif()

# cpack reads this file before it makes a package: adds to a package's dependencies the libraries of Debian's that its files
# are linked with, in the versions that they need.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()
if(NOT CPACK_MORUN_DEBIAN)
  message(FATAL_ERROR "Debian's packages have another layout than this build tree; configure it with -DMORUN_DEBIAN=ON")
endif()

# dpkg-shlibdeps reads the list of packages from a source package.
set(scratch "${CPACK_MORUN_BUILD}/debian")
file(WRITE "${scratch}/debian/control" "Source: morun\n\nPackage: morun\nArchitecture: any\n")

# The libraries of this project stand among the dependencies already, and libparlo.so may be a vendor's.
function(add_dependencies component)
  set(own "${CPACK_MORUN_BUILD}/lib")
  execute_process(COMMAND dpkg-shlibdeps -O --ignore-missing-info "-l${own}" "-l${CPACK_MORUN_CROSS_LIBRARIES}" ${ARGN}
    WORKING_DIRECTORY "${CPACK_MORUN_BUILD}/debian" OUTPUT_VARIABLE found ERROR_VARIABLE messages COMMAND_ERROR_IS_FATAL ANY)
  string(STRIP "${found}" found)
  string(REGEX REPLACE "^shlibs:Depends=" "" found "${found}")
  # Libraries to cross-build with have the processor in their names.
  string(REGEX REPLACE "(:|-)${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}(-cross)?" "" found "${found}")
  if(NOT found MATCHES "^libc6 ")
    message(FATAL_ERROR "dpkg-shlibdeps finds no dependency of ${ARGN} on libc6: ${found} ${messages}")
  endif()
  set(variable CPACK_DEBIAN_${component}_PACKAGE_DEPENDS)
  if(${variable})
    set(found "${found}, ${${variable}}")
  endif()
  set(${variable} "${found}" PARENT_SCOPE)
endfunction()
add_dependencies(LIBRARY ../lib/libmorun.so)
add_dependencies(WEIGHTS ../lib/libmorun_weights.so)
add_dependencies(TOOL ../bin/morun)
add_dependencies(EMULATOR ../lib/libparlo.so ../lib/parlo-dsp)

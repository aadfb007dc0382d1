# Installs the Python package where Debian's interpreter looks for packages. Variables: source, the folder of
# pyproject.toml; scratch, a folder for what comes into being on the way.
set(package "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/lib/python3/dist-packages")
file(REMOVE_RECURSE "${scratch}")
file(COPY "${source}" DESTINATION "${scratch}" PATTERN __pycache__ EXCLUDE PATTERN build EXCLUDE PATTERN *.egg-info EXCLUDE)
execute_process(COMMAND /usr/bin/python3 -m build --no-isolation --wheel --outdir "${scratch}" "${scratch}/python"
  COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
file(GLOB wheel "${scratch}/*.whl")
file(ARCHIVE_EXTRACT INPUT "${wheel}" DESTINATION "${package}")
file(GLOB records "${package}/morun-*.dist-info/RECORD")
file(REMOVE ${records})  # for pip, which must not remove files that a package of Debian's owns

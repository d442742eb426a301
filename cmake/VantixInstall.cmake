# Install rules: the shared library, its public headers, the CMake package
# (find_package(vantix) -> vantix::vantix) and vantix.pc.
#
# Components: "runtime" (libvantix.so.1 and its versioned file), "devel"
# (vantix.h, the header-only C++ layer vantix.hpp, the libvantix.so link,
# CMake package, vantix.pc), plus "tool" from tools/ and "simcam" from
# testing/simcam/.  A plain `cmake --install` installs all of them.
# tools/arraycam/ adds the array camera to "runtime" (lib/) and its header
# to "devel" (include/vantix/).
#
# The static archive is not installed: it only exists so that the unit tests
# reach internal functions, it carries OpenCV as a link dependency its users
# would have to satisfy themselves, and exporting it would pull OpenCV into
# the CMake package.  The shared library is the product: it exports the C
# functions only and brings its own OpenCV dependency along.
include(CMakePackageConfigHelpers)

install(TARGETS vantix EXPORT vantixTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime
    NAMELINK_COMPONENT devel
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/include/vantix.h ${PROJECT_SOURCE_DIR}/include/vantix.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT devel)

# OpenCV is linked PRIVATE, so the exported target names only the library
# and the include directory: consumers need neither OpenCV's headers nor its
# CMake package.
install(EXPORT vantixTargets
  NAMESPACE vantix::
  FILE vantixTargets.cmake
  DESTINATION ${VANTIX_INSTALL_CMAKEDIR}
  COMPONENT devel)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/vantixConfig.cmake.in
  ${PROJECT_BINARY_DIR}/vantixConfig.cmake
  INSTALL_DESTINATION ${VANTIX_INSTALL_CMAKEDIR}
  PATH_VARS VANTIX_INSTALL_SIMCAMDIR CMAKE_INSTALL_INCLUDEDIR)
# The C interface only changes compatibly within a major version (the SONAME
# carries the major number).
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/vantixConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/vantixConfig.cmake
  ${PROJECT_BINARY_DIR}/vantixConfigVersion.cmake
  DESTINATION ${VANTIX_INSTALL_CMAKEDIR}
  COMPONENT devel)

# vantix.pc holds absolute paths under the prefix actually installed to,
# which `cmake --install --prefix` may change after configuring: the file is
# finished at install time.  The shared library records its own OpenCV
# dependency, so Libs names only -lvantix (no Requires.private either).
function(vantix_pc_dir var dir)
  if(IS_ABSOLUTE "${dir}")
    set(${var} "${dir}" PARENT_SCOPE)
  else()
    set(${var} "\${prefix}/${dir}" PARENT_SCOPE)
  endif()
endfunction()
vantix_pc_dir(VANTIX_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
vantix_pc_dir(VANTIX_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
vantix_pc_dir(VANTIX_PC_SIMCAMDIR "${VANTIX_INSTALL_SIMCAMDIR}")
set(VANTIX_PC_TEMPLATE ${PROJECT_BINARY_DIR}/vantix.pc.template)
configure_file(${CMAKE_CURRENT_LIST_DIR}/vantix.pc.in ${VANTIX_PC_TEMPLATE} @ONLY)
install(CODE "
  file(READ \"${VANTIX_PC_TEMPLATE}\" vantix_pc)
  string(REPLACE \"%PREFIX%\" \"\${CMAKE_INSTALL_PREFIX}\" vantix_pc \"\${vantix_pc}\")
  file(WRITE \"${PROJECT_BINARY_DIR}/vantix.pc\" \"\${vantix_pc}\")"
  COMPONENT devel)
install(FILES ${PROJECT_BINARY_DIR}/vantix.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT devel)

# The Python binding (pure Python, no build step) goes where Debian's python3
# looks for packages under the prefix (lib/python3.X/dist-packages), with a
# small module recording where the library itself was installed, so that
# `import vantix` works without VANTIX_LIBRARY or an ldconfig run.
find_package(Python3 COMPONENTS Interpreter QUIET)
if(Python3_FOUND)
  set(VANTIX_INSTALL_PYTHONDIR
      "lib/python${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}/dist-packages"
      CACHE STRING "Where the Python package is installed, relative to the prefix")
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/vantix
    DESTINATION ${VANTIX_INSTALL_PYTHONDIR}
    COMPONENT python
    PATTERN "__pycache__" EXCLUDE)
  install(CODE "
    set(vantix_libdir \"${CMAKE_INSTALL_LIBDIR}\")
    if(NOT IS_ABSOLUTE \"\${vantix_libdir}\")
      set(vantix_libdir \"\${CMAKE_INSTALL_PREFIX}/\${vantix_libdir}\")
    endif()
    file(WRITE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${VANTIX_INSTALL_PYTHONDIR}/vantix/_installed.py\"
      \"# Written by cmake --install: where libvantix was installed.\\nLIBRARY = \\\"\${vantix_libdir}/libvantix.so.1\\\"\\n\")"
    COMPONENT python)
endif()

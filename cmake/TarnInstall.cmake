# Headers, CMake package and pkg-config file: what a program outside this tree needs.

include(CMakePackageConfigHelpers)

if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR "CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR must be relative to the prefix")
endif()

install(DIRECTORY libraries/TarnSocketIO
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h"
  PATTERN detail EXCLUDE)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TarnSocketIO)
install(EXPORT TarnSocketIOTargets NAMESPACE TarnSocketIO:: DESTINATION ${package_dir})
configure_package_config_file(cmake/TarnSocketIOConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TarnSocketIOConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnSocketIOConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/TarnSocketIOConfig.cmake
  ${PROJECT_BINARY_DIR}/TarnSocketIOConfigVersion.cmake
  DESTINATION ${package_dir})

# The prefix follows the file, so that an installed tree can be moved or staged.
file(RELATIVE_PATH pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)

# Where the platform brings the companion runtime, the program that links the library names it.
set(pc_runtime)
if(TARN_COMPANION_RUNTIME STREQUAL bundled)
  set(pc_runtime "-lTarnRuntime")
endif()
configure_file(cmake/TarnSocketIO.pc.in ${PROJECT_BINARY_DIR}/TarnSocketIO.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/TarnSocketIO.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

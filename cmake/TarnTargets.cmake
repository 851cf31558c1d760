# How every target of this project is compiled.

# Language level and warnings for a target of ours; none of it reaches those who link it.
function(tarn_compile_options target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  # A build without a source path in it is the same on every machine, and reports name files as the tree does.
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
  if(TARN_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# A library of ours: its compile options, its alias, and its place in the installed package.
function(tarn_library target)
  tarn_compile_options(${target})
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  add_library(TarnSocketIO::${target} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/libraries>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PUBLIC Threads::Threads)
  if(TARN_INSTALL)
    install(TARGETS ${target} EXPORT TarnSocketIOTargets)
  endif()
endfunction()

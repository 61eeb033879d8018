# The library is assembled from the subsystem folders: each calls vx_sources() to add its
# files, then vx_finish_library() builds the shared and the static library from them.
add_library(vxtools3_objects OBJECT)
set_target_properties(vxtools3_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  C_VISIBILITY_PRESET hidden
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(vxtools3_objects PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_include_directories(vxtools3_objects PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_definitions(vxtools3_objects PRIVATE VXTOOLS3_BUILDING)
# Lists and zones address header words as node links; keep the compiler from
# assuming those accesses cannot alias.
target_compile_options(vxtools3_objects PRIVATE -fno-strict-aliasing -fno-exceptions)
target_link_libraries(vxtools3_objects PRIVATE vx_warnings)

function(vx_sources)
  target_sources(vxtools3_objects PRIVATE ${ARGN})
endfunction()

# Tests of one subsystem: one binary, linked against the static library so that the
# tests can reach the subsystem's private functions.
# A helper program the library starts (module scanner, hub daemon): built into and installed in
# libexec/vxtools3, where FindHelperProgram (platform/programs.cpp) looks for it.
function(vx_helper_program name source)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE vxtools3_static vx_warnings)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/libexec/vxtools3)
  install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/vxtools3)
endfunction()

function(vx_test name)
  if(NOT VX_BUILD_TESTS)
    return()
  endif()
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE vxtools3_static vx_testkit GTest::gtest_main GTest::gmock vx_warnings)
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR} ${PROJECT_SOURCE_DIR})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

function(vx_finish_library)
  add_library(vxtools3 SHARED $<TARGET_OBJECTS:vxtools3_objects>)
  add_library(vxtools3_static STATIC $<TARGET_OBJECTS:vxtools3_objects>)
  foreach(lib vxtools3 vxtools3_static)
    target_include_directories(${lib} PUBLIC
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
      $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${lib} PRIVATE $<BUILD_INTERFACE:vx_warnings>)
    target_link_libraries(${lib} PUBLIC ${VX_LIBRARY_LINK})
  endforeach()
  set_target_properties(vxtools3 PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINKER_LANGUAGE CXX)
  set_target_properties(vxtools3_static PROPERTIES
    OUTPUT_NAME vxtools3 LINKER_LANGUAGE CXX)
  # The static library's objects are C++: programs that link it, C ones included, need the
  # C++ runtime and the maths library after it.
  target_link_libraries(vxtools3_static INTERFACE stdc++ m)
  target_link_options(vxtools3 PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/vxtools3.map)
  set_property(TARGET vxtools3 APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/vxtools3.map)
  # Every symbol the shared library needs must resolve at its own link. Sanitizer builds
  # leave the runtime's symbols to the program, so they cannot ask for this.
  string(FIND "${CMAKE_CXX_FLAGS}" "-fsanitize" sanitizing)
  if(sanitizing EQUAL -1)
    target_link_options(vxtools3 PRIVATE -Wl,--no-undefined)
  endif()
  add_library(vxtools3::vxtools3 ALIAS vxtools3)
  add_library(vxtools3::vxtools3_static ALIAS vxtools3_static)
endfunction()

include(CMakePackageConfigHelpers)

install(TARGETS vxtools3 vxtools3_static EXPORT vxtools3Targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/vxtools3.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/vxtools3 DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(TARGETS vxtool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# `cmake --install` wants everything above built; building vxtool (as `./build.sh demo` does)
# builds it all, the static library included (an archive of objects the shared one has made).
add_dependencies(vxtool vxtools3_static)

set(VX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vxtools3)
install(EXPORT vxtools3Targets NAMESPACE vxtools3:: DESTINATION ${VX_CMAKE_DIR})
configure_package_config_file(cmake/vxtools3Config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/vxtools3Config.cmake INSTALL_DESTINATION ${VX_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vxtools3ConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vxtools3Config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/vxtools3ConfigVersion.cmake
        DESTINATION ${VX_CMAKE_DIR})

# pkg-config: the shared library by default, `pkg-config --static` adds the private libraries.
# The prefix is found from the file's own place, so the package works wherever it is installed.
list(JOIN VX_PKGCONFIG_PRIVATE " " VX_PKGCONFIG_LIBS_PRIVATE)
file(RELATIVE_PATH VX_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VX_PC_TO_PREFIX "${VX_PC_TO_PREFIX}")
set(VX_PC_PREFIX "\${pcfiledir}/${VX_PC_TO_PREFIX}")
configure_file(cmake/vxtools3.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vxtools3.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vxtools3.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

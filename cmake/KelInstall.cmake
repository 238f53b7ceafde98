install(TARGETS kel EXPORT kelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/include/kel/export.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kel)

set(_kel_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kel)
install(EXPORT kelTargets NAMESPACE kel:: DESTINATION ${_kel_cmake_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kelConfig.cmake INSTALL_DESTINATION ${_kel_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelConfig.cmake ${PROJECT_BINARY_DIR}/kelConfigVersion.cmake
  DESTINATION ${_kel_cmake_dir})

# kel.pc finds the prefix from its own folder (libdir/pkgconfig), so it
# stays right when installed with --prefix elsewhere or moved.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  message(FATAL_ERROR "kel.pc needs a relative CMAKE_INSTALL_LIBDIR, not ${CMAKE_INSTALL_LIBDIR}")
endif()
file(RELATIVE_PATH KEL_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" KEL_PC_TO_PREFIX "${KEL_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/kel.pc.in ${PROJECT_BINARY_DIR}/kel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(KEL_BUILD_TOOLS)
  install(TARGETS kel_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# Install rules, the CMake package (find_package(krm_mbuf)) and pkg-config.
include(CMakePackageConfigHelpers)

install(TARGETS krm_mbuf krm_platform_host EXPORT krm_mbufTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/krm_mbuf DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/host/include/krm_host DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(KRM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/krm_mbuf)
install(EXPORT krm_mbufTargets NAMESPACE krm_mbuf:: DESTINATION ${KRM_CMAKE_DIR})
configure_package_config_file(cmake/krm_mbufConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/krm_mbufConfig.cmake INSTALL_DESTINATION ${KRM_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/krm_mbufConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/krm_mbufConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/krm_mbufConfigVersion.cmake DESTINATION ${KRM_CMAKE_DIR})

# The prefix is found from the .pc file's own place, so an install moved
# with --prefix still resolves.
file(RELATIVE_PATH KRM_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/krm_mbuf.pc.in ${CMAKE_CURRENT_BINARY_DIR}/krm_mbuf.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/krm_mbuf.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

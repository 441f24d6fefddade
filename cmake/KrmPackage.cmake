# A Debian package of everything `install` puts down: the library, the host
# platform, headers, the CMake package, pkg-config and the krm-mbuf tool.
# `cpack -G DEB` in a build tree (or `cmake --build . --target package`).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME krm-mbuf)
set(CPACK_PACKAGE_VENDOR "libkrm_mbuf developers")
set(CPACK_PACKAGE_CONTACT "libkrm_mbuf developers <krm-mbuf@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Message buffers of the router control plane, with the krm-mbuf tool")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
# Runtime dependencies from the binaries themselves (libc, libstdc++, libpcap).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${CMAKE_BINARY_DIR}/src ${CMAKE_BINARY_DIR}/platform/host)
include(CPack)

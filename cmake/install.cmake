# Installation and packaging: the library, its header, the launcher and the
# report tool, a pkg-config file and a CMake package (find_package(tarvex)
# gives the imported target tarvex::tarvex), in the GNUInstallDirs places;
# `cpack -G DEB` makes a Debian package of the same files.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TARVEX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tarvex)
set(TARVEX_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS tarvex LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT tarvex)
install(FILES ${PROJECT_SOURCE_DIR}/include/tarvex.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT tarvex)
if(TARGET tarvex-report)
  install(PROGRAMS ${TARVEX_TOOLS_BIN_DIR}/tarvex DESTINATION ${CMAKE_INSTALL_BINDIR}
          COMPONENT tarvex)
  install(TARGETS tarvex-report RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tarvex)
endif()

# pkg-config: the prefix is found from the .pc file's own place, so an
# installation can be moved (or made with `cmake --install --prefix`).
file(RELATIVE_PATH TARVEX_PC_TO_PREFIX
     "/prefix/${TARVEX_PKGCONFIG_DIR}" "/prefix")
string(REGEX REPLACE "/$" "" TARVEX_PC_TO_PREFIX "${TARVEX_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tarvex.pc.in ${CMAKE_BINARY_DIR}/tarvex.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tarvex.pc DESTINATION ${TARVEX_PKGCONFIG_DIR} COMPONENT tarvex)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tarvexConfig.cmake.in
  ${CMAKE_BINARY_DIR}/tarvexConfig.cmake
  INSTALL_DESTINATION ${TARVEX_CMAKE_DIR}
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tarvexConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tarvexConfig.cmake ${CMAKE_BINARY_DIR}/tarvexConfigVersion.cmake
        DESTINATION ${TARVEX_CMAKE_DIR} COMPONENT tarvex)

# The Debian package holds the files above and nothing that other parts of
# the build may install.
set(CPACK_PACKAGE_NAME tarvex)
set(CPACK_PACKAGE_VENDOR "tarvex developers")
set(CPACK_PACKAGE_CONTACT "tarvex developers <tarvex@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "heap debugger preloaded into Linux programs")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "libtarvex.so guards every heap block of one process with a footer, poisons fresh\n"
  "and freed memory, keeps freed blocks in a quarantine and stops on double frees,\n"
  "unknown pointers and overwritten footers with both call stacks. The tarvex\n"
  "launcher runs a program with it preloaded, and tarvex report symbolises its\n"
  "reports and finds leak suspects.")
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};tarvex;tarvex;/")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6, libgcc-s1, libdw1, bash")
include(CPack)

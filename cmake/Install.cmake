# cmake --install: libScan.so with the scan-database plug-in next to it, the public headers under
# include/fsscan, the fsscan tool, a CMake package (find_package(fsscan CONFIG) -> fsscan::Scan)
# and a pkg-config file.
include(CMakePackageConfigHelpers)

set(FSSCAN_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/fsscan)

install(TARGETS Scan EXPORT fsscanTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# CQiLibrary looks for the plug-in in the folder of libScan.so first.
install(TARGETS ZrFSSQLiteDB LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS fsscan RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
set_target_properties(fsscan PROPERTIES
                      INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
set_target_properties(ZrFSSQLiteDB PROPERTIES INSTALL_RPATH "$ORIGIN")

# Public headers, relative layout kept; the plug-in's own headers stay private to it.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/Platform ${CMAKE_SOURCE_DIR}/Scan
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fsscan
        FILES_MATCHING PATTERN "*.h"
        PATTERN "Plugin" EXCLUDE)

install(EXPORT fsscanTargets NAMESPACE fsscan:: DESTINATION ${FSSCAN_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/fsscanConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/fsscanConfig.cmake
                              INSTALL_DESTINATION ${FSSCAN_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/fsscanConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/fsscanConfig.cmake ${CMAKE_BINARY_DIR}/fsscanConfigVersion.cmake
        DESTINATION ${FSSCAN_INSTALL_CMAKEDIR})

# The pkg-config file finds the prefix from its own folder, so that the install can be moved
# (cmake --install --prefix DIR).
file(RELATIVE_PATH FSSCAN_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" FSSCAN_PC_TO_PREFIX "${FSSCAN_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/fsscan.pc.in ${CMAKE_BINARY_DIR}/fsscan.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/fsscan.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

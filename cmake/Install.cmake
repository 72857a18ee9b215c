# Installed: both libraries, the public headers, a CMake package (find_package(OQLinux)) and pkg-config files.
install(TARGETS OQLinux OQCompanion EXPORT OQLinuxTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES linux/OQLinux.h companion/OQCompanionSettings.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/oqlinux)
install(DIRECTORY backend/common/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/oqlinux)

install(EXPORT OQLinuxTargets NAMESPACE OQ:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OQLinux)
file(WRITE ${CMAKE_BINARY_DIR}/OQLinuxConfig.cmake
     "include(CMakeFindDependencyMacro)\nfind_dependency(Threads)\n"
     "include(\${CMAKE_CURRENT_LIST_DIR}/OQLinuxTargets.cmake)\n")
write_basic_package_version_file(${CMAKE_BINARY_DIR}/OQLinuxConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/OQLinuxConfig.cmake ${CMAKE_BINARY_DIR}/OQLinuxConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OQLinux)

# The package may be moved: the files find their prefix from where they are.
file(RELATIVE_PATH OQ_PREFIX_FROM_PKGCONFIG ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/oqlinux.pc.in ${CMAKE_BINARY_DIR}/oqlinux.pc @ONLY)
configure_file(cmake/oqcompanion.pc.in ${CMAKE_BINARY_DIR}/oqcompanion.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/oqlinux.pc ${CMAKE_BINARY_DIR}/oqcompanion.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_VENDOR "The OQLinux maintainers")
include(CPack)

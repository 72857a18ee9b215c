# Install rules. The components are:
#
#   runtime        both libraries
#   development    the public headers, the static libraries, a CMake package (find_package(OQLinux)), pkg-config files,
#                  the manual pages of functions and types, the GDB pretty-printers
#   documentation  the reference, the guide and the other pages
#   examples       the sources of the examples, which can be built against the installed layer
#   tools          oqshm and oqtrace with their manual pages and completion for bash
#
# The reference and the manual pages are installed only if OQ_REFERENCE names the folder in which scripts/docs created
# them.
set(OQ_REFERENCE "" CACHE PATH "Output folder of scripts/docs, to be installed (build/docs)")

# All users can read the installed directories, whatever the umask of the installing user is.
if(NOT CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS)
    set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
        OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endif()

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(OQ_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/oqlinux)
set(OQ_CMAKE_PACKAGE ${CMAKE_INSTALL_LIBDIR}/cmake/OQLinux)

# install_directories(COMPONENT DIRECTORY...) - call it before the rules that install into the directories
function(install_directories component)
    install(CODE "include([[${PROJECT_SOURCE_DIR}/cmake/MakeDirectories.cmake]])
make_directories(${ARGN})" COMPONENT ${component})
endfunction()
install_directories(runtime ${CMAKE_INSTALL_LIBDIR})
install_directories(development ${OQ_HEADERS} ${OQ_CMAKE_PACKAGE} ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install_directories(documentation ${CMAKE_INSTALL_DOCDIR})
install_directories(examples ${CMAKE_INSTALL_DOCDIR})

install(
    TARGETS ${libraries}
    EXPORT OQLinuxTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${OQ_HEADERS})
install(FILES linux/OQLinux.h linux/OQGuards.h companion/OQCompanionSettings.h DESTINATION ${OQ_HEADERS} COMPONENT development)
install(DIRECTORY backend/common/include/ DESTINATION ${OQ_HEADERS} COMPONENT development)

# The package is relocatable: its files compute the prefix from their own location.
install(EXPORT OQLinuxTargets NAMESPACE OQ:: DESTINATION ${OQ_CMAKE_PACKAGE} COMPONENT development)
configure_package_config_file(
    cmake/OQLinuxConfig.cmake.in ${PROJECT_BINARY_DIR}/OQLinuxConfig.cmake
    INSTALL_DESTINATION ${OQ_CMAKE_PACKAGE}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OQLinuxConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/OQLinuxConfig.cmake ${PROJECT_BINARY_DIR}/OQLinuxConfigVersion.cmake
        DESTINATION ${OQ_CMAKE_PACKAGE} COMPONENT development)

set(OQ_PKGCONFIG ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(OQ_PKGCONFIG_FULL ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH OQ_LIBDIR_FROM_PKGCONFIG ${OQ_PKGCONFIG_FULL} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH OQ_HEADERS_FROM_PKGCONFIG ${OQ_PKGCONFIG_FULL} ${CMAKE_INSTALL_FULL_INCLUDEDIR}/oqlinux)
foreach(package oqlinux oqcompanion)
    configure_file(cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${OQ_PKGCONFIG} COMPONENT development)
endforeach()

if(OQ_REFERENCE)
    file(REMOVE_RECURSE ${PROJECT_BINARY_DIR}/man)
    file(COPY ${OQ_REFERENCE}/man DESTINATION ${PROJECT_BINARY_DIR})
    file(GLOB pages ${PROJECT_BINARY_DIR}/man/*/*)
    execute_process(COMMAND gzip -9 --no-name ${pages} COMMAND_ERROR_IS_FATAL ANY)
    install_directories(development ${CMAKE_INSTALL_MANDIR})
    install(DIRECTORY ${PROJECT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
    install(DIRECTORY ${OQ_REFERENCE}/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
endif()

# The pages of the tree. Links to sources that are not installed become plain text.
file(GLOB pages RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS docs/*.md)
list(APPEND pages README.md SECURITY.md CHANGELOG.md)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${pages})
foreach(page ${pages})
    file(READ ${page} text)
    string(REGEX REPLACE
           "\\[([^][]*)\\]\\((\\.\\./)?(CONTRIBUTING|backend|bench|cmake|companion|linux|scripts|tests)([./][^)]*)?\\)" "\\1"
           text "${text}")
    file(WRITE ${PROJECT_BINARY_DIR}/pages/${page} "${text}")
endforeach()
install(DIRECTORY ${PROJECT_BINARY_DIR}/pages/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
        FILES_MATCHING PATTERN *.svg PATTERN *.png)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT examples)

if(OQ_TOP_LEVEL)
    include(cmake/Package.cmake)
endif()

# Packages the components of Install.cmake as an archive (cpack -G TGZ) or as one Debian package per component
# (scripts/package).
set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_VENDOR "The OQLinux maintainers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package sets its own
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON) # scripts/package keeps the debug information in packages of its own
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The OQLinux maintainers <maintainers@oqlinux.example>")
set(CPACK_DEBIAN_PACKAGE_SOURCE oqlinux)
set(OQ_DEBIAN_VERSION ${CPACK_DEBIAN_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

configure_file(cmake/debian/changelog.in ${PROJECT_BINARY_DIR}/changelog.Debian @ONLY)
execute_process(COMMAND gzip -9 --no-name --force --keep ${PROJECT_BINARY_DIR}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)

# debian_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION [DEPENDENCY...])
#
# The files that only a Debian package has (copyright, changelog) are excluded from a complete install.
macro(debian_package component name section summary description)
    string(TOUPPER ${component} upper)
    string(REPLACE ";" ", " dependencies "${ARGN}")
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${dependencies}")
    set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}")
    install(FILES cmake/debian/copyright ${PROJECT_BINARY_DIR}/changelog.Debian.gz
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

debian_package(
    runtime liboqlinux${PROJECT_VERSION_MAJOR} libs "Linux operating-system abstraction layer"
    [[Threads, mutexes, condition variables, named pipes, shared-memory mailboxes,
child processes, commands, file locks and host identity: each a thin wrapper
round one family of POSIX calls, all with one tree of exceptions and one log.
.
The companion runtime is for hosts that have none of their own.]])
debian_package(
    development liboqlinux-dev libdevel "Linux operating-system abstraction layer (development files)"
    [[The layer wraps threads, mutexes, condition variables, named pipes,
shared-memory mailboxes, child processes, commands and file locks.
.
Headers, static libraries, CMake package, pkg-config files and a manual page
for every function and type.]]
    "liboqlinux${PROJECT_VERSION_MAJOR} (= ${OQ_DEBIAN_VERSION})")
debian_package(
    documentation liboqlinux-doc doc "Linux operating-system abstraction layer (reference)"
    [[The layer wraps threads, mutexes, condition variables, named pipes,
shared-memory mailboxes, child processes, commands and file locks.
.
Reference of every function, every exception and every line of the log; guide;
table of all failures; benchmarks.]])
debian_package(
    examples liboqlinux-examples doc "Linux operating-system abstraction layer (examples)"
    [[The layer wraps threads, mutexes, condition variables, named pipes,
shared-memory mailboxes, child processes, commands and file locks.
.
Sources of a small daemon, of its tool and of a first program, with the CMake
file that builds them against the development files.]]
    "liboqlinux-dev (>= ${PROJECT_VERSION})")

if(OQ_BUILD_TOOLS)
    debian_package(
        tools oqlinux-tools utils "Linux operating-system abstraction layer (tools)"
        [[The layer wraps threads, mutexes, condition variables, named pipes,
shared-memory mailboxes, child processes, commands and file locks.
.
oqshm shows the shared-memory mailboxes of a host and reports problems.
oqtrace shows the calls that a log records: as a table, as a timeline, or for
a flame graph.]])
endif()

# CPack detects the libraries' dependencies. Dependent packages get them from the symbols file, which scripts/package
# makes. The generated shlibs file serves builds that ignore symbols files. The trigger runs ldconfig after an install.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON) # whatever umask created the file of the trigger
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/triggers ${PROJECT_BINARY_DIR}/symbols)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_ARCHITECTURE all)
include(CPack)

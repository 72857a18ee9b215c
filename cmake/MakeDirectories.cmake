# Included by the install scripts. CMake creates the directories above an installed file with the umask of the user who
# installs, and nobody else can then read the package. make_directories() creates them first, readable by every user. It
# leaves directories that exist as they are.
function(make_directories)
    foreach(directory ${ARGN})
        cmake_path(ABSOLUTE_PATH directory BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX})
        string(PREPEND directory "$ENV{DESTDIR}")
        set(missing)
        while(NOT EXISTS ${directory})
            list(PREPEND missing ${directory})
            cmake_path(GET directory PARENT_PATH directory)
        endwhile()
        foreach(directory ${missing})
            file(MAKE_DIRECTORY ${directory})
            file(CHMOD ${directory} PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
        endforeach()
    endforeach()
endfunction()

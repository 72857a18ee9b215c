# The install scripts include this file. CMake creates the directories above an installed file with the installing
# user's umask, so other users might not be able to read the package. make_directories() creates the directories first,
# readable by all users. It leaves existing directories unchanged.
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

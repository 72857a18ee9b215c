# Cross compilation with Debian's compiler for an architecture of tests/architectures.txt. A preset names the
# architecture in OQ_ARCHITECTURE.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES OQ_ARCHITECTURE)
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../tests/architectures.txt row REGEX "^${OQ_ARCHITECTURE} +[^ ]+-linux-gnu ")
separate_arguments(row UNIX_COMMAND "${row}")
list(GET row 1 triplet)
list(GET row 2 emulator)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${OQ_ARCHITECTURE})
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(OQ_TOOL_PREFIX ${triplet}-)
if(emulator STREQUAL none)
    # An x86-64 kernel runs 32-bit x86 programs directly. They use the cross compiler's loader and libraries, so no
    # packages of a second architecture are needed.
    set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=/usr/${triplet}/lib/ld-linux.so.2 \
-Wl,--disable-new-dtags -Wl,-rpath,/usr/${triplet}/lib")
else()
    set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator};-L;/usr/${triplet})
endif()
set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

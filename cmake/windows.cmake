# 64-bit Windows, built by MinGW-w64 with POSIX threads and run under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# scripts/setup puts libraries that it builds for Windows into this cache.
if(DEFINED ENV{XDG_CACHE_HOME})
    set(cache $ENV{XDG_CACHE_HOME})
else()
    set(cache $ENV{HOME}/.cache)
endif()
set(CMAKE_FIND_ROOT_PATH
    /usr/x86_64-w64-mingw32 ${cache}/ktbase/windows/googletest ${cache}/ktbase/windows/jsoncpp
    ${cache}/ktbase/windows/openssl)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine ${CMAKE_BINARY_DIR}/wine)

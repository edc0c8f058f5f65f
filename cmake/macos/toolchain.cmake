# Builds for macOS on Linux with a compiler that brings that system's headers and libraries along.
# ZK_MACOS_COMPILER is the program, ZK_MACOS_ARCHITECTURE aarch64 or x86_64.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)  # linking has the compiler build libc++ for it
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZK_MACOS_COMPILER ZK_MACOS_ARCHITECTURE)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${ZK_MACOS_ARCHITECTURE})
set(CMAKE_CXX_COMPILER ${ZK_MACOS_COMPILER} c++ -target ${ZK_MACOS_ARCHITECTURE}-macos)
# It archives as well, but is one program for all of it.
set(CMAKE_CXX_ARCHIVE_CREATE "${ZK_MACOS_COMPILER} ar qcs <TARGET> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_APPEND "${ZK_MACOS_COMPILER} ar qs <TARGET> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "")
# CMake insists on one. It is for shared libraries, and there are none.
set(CMAKE_INSTALL_NAME_TOOL install_name_tool-is-not-needed)

# Nothing of the machine that builds is for the one that runs.
set(CMAKE_FIND_ROOT_PATH ${CMAKE_CURRENT_LIST_DIR}/nothing)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Cross-compiles with Zig's clang and its bundled C and C++ libraries for one target:
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/zig-toolchain.cmake -DVORN_ZIG_TARGET=aarch64-macos ...
# Targets: aarch64-macos and x86_64-macos (the minimum macOS is CMAKE_OSX_DEPLOYMENT_TARGET),
# x86_64-linux-musl and aarch64-linux-musl (fully static binaries).
if(NOT VORN_ZIG_TARGET)
  message(FATAL_ERROR "set VORN_ZIG_TARGET (for example aarch64-macos)")
endif()
# Try-compiles configure projects of their own; they need the target too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VORN_ZIG_TARGET CMAKE_OSX_DEPLOYMENT_TARGET)

string(REGEX MATCH "^[^-]+" VORN_ZIG_ARCH "${VORN_ZIG_TARGET}")
if(VORN_ZIG_TARGET MATCHES "-macos")
  set(CMAKE_SYSTEM_NAME Darwin)
  # No SDK to look for: Zig brings the macOS headers and stubs of the system library.
  set(CMAKE_OSX_SYSROOT "" CACHE STRING "" FORCE)
  # CMake wants it for a Darwin target although nothing here is a shared library.
  find_program(CMAKE_INSTALL_NAME_TOOL NAMES llvm-install-name-tool install_name_tool
    PATHS /usr/lib/llvm-14/bin /usr/lib/llvm-16/bin)
  if(NOT CMAKE_INSTALL_NAME_TOOL)
    set(CMAKE_INSTALL_NAME_TOOL true CACHE FILEPATH "" FORCE)
  endif()
  if(VORN_ZIG_ARCH STREQUAL "aarch64")
    set(CMAKE_SYSTEM_PROCESSOR arm64)
  else()
    set(CMAKE_SYSTEM_PROCESSOR ${VORN_ZIG_ARCH})
  endif()
else()
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_SYSTEM_PROCESSOR ${VORN_ZIG_ARCH})
endif()
# No symbol table: Zig builds the static C and C++ libraries with debug information (and the
# paths of its cache), and a Mach-O symbol table keeps the path and time of every object file;
# without them the same commit links the same bytes wherever and whenever it is built.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-s")

set(VORN_ZIG_WRAPPERS ${CMAKE_CURRENT_LIST_DIR}/zig)
set(CMAKE_C_COMPILER ${VORN_ZIG_WRAPPERS}/zig-cc)
set(CMAKE_CXX_COMPILER ${VORN_ZIG_WRAPPERS}/zig-c++)
set(CMAKE_AR ${VORN_ZIG_WRAPPERS}/zig-ar CACHE FILEPATH "" FORCE)
set(CMAKE_RANLIB ${VORN_ZIG_WRAPPERS}/zig-ranlib CACHE FILEPATH "" FORCE)
set(VORN_ZIG_FULL_TARGET ${VORN_ZIG_TARGET})
set(VORN_ZIG_CXX_FLAGS "")
if(CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  if(NOT CMAKE_OSX_DEPLOYMENT_TARGET)
    message(FATAL_ERROR "CMAKE_OSX_DEPLOYMENT_TARGET is not set")
  endif()
  # Zig takes the minimum macOS as part of the target (its default is newer than ours).
  set(VORN_ZIG_FULL_TARGET ${VORN_ZIG_TARGET}.${CMAKE_OSX_DEPLOYMENT_TARGET})
  # Zig switches off the availability marks of Apple's C++ library; this puts them back, so a
  # call that Apple's toolchain refuses below the minimum macOS fails here too.
  set(VORN_ZIG_CXX_FLAGS "-include ${CMAKE_CURRENT_LIST_DIR}/zig/apple-availability.h")
endif()
# The checkout's own path stays out of the binaries (in __FILE__), so a commit builds the same
# bytes wherever it is checked out.
set(CMAKE_C_FLAGS_INIT "-target ${VORN_ZIG_FULL_TARGET}")
set(CMAKE_CXX_FLAGS_INIT
  "-target ${VORN_ZIG_FULL_TARGET} ${VORN_ZIG_CXX_FLAGS} -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

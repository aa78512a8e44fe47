# Cross build of updater.exe for 64-bit Windows with Debian's MinGW-w64 (posix-threads variant),
# against the static Qt, OpenSSL and libzstd that scripts/windows-toolchain.sh builds:
#
#   scripts/windows-toolchain.sh
#   cmake -S . -B build-win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DBUILD_TESTING=OFF
#   cmake --build build-win -j 2
#
# The toolchain's location is CORVANTA_WINDOWS_TOOLCHAIN (as for the script), by default
# ~/.cache/corvanta-windows-toolchain; its installed prefix is prefix/ below it.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

if(DEFINED ENV{CORVANTA_WINDOWS_TOOLCHAIN})
  set(CORV_WINDOWS_PREFIX "$ENV{CORVANTA_WINDOWS_TOOLCHAIN}/prefix")
else()
  set(CORV_WINDOWS_PREFIX "$ENV{HOME}/.cache/corvanta-windows-toolchain/prefix")
endif()
if(NOT EXISTS "${CORV_WINDOWS_PREFIX}/toolchain.complete")
  message(FATAL_ERROR "no complete Windows toolchain in ${CORV_WINDOWS_PREFIX}: run scripts/windows-toolchain.sh")
endif()

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# Libraries, headers and CMake packages come from the toolchain's prefix and MinGW's own
# sysroot only; programs (Qt's host moc and rcc, python, wine) from this machine.
set(CMAKE_FIND_ROOT_PATH "${CORV_WINDOWS_PREFIX}" /usr/x86_64-w64-mingw32)
set(CMAKE_PREFIX_PATH "${CORV_WINDOWS_PREFIX}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(OPENSSL_ROOT_DIR "${CORV_WINDOWS_PREFIX}")
set(OPENSSL_USE_STATIC_LIBS TRUE)

# One self-contained executable: libgcc, libstdc++ and winpthread linked in, no DLL beside it.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

# i386.cmake - a 32-bit x86 build on an x86-64 Debian host: the host's gcc
# with -m32 (g++-multilib), and libraries found in Debian's i386 multiarch
# directories (libgtest-dev:i386 and libgmock-dev:i386 for the suite).
# The host and target are the same system, so the build is not a cross
# build: the test programs run as they are.
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
# 64-bit file offsets and a 64-bit time_t everywhere (glibc's _TIME_BITS=64):
# the 32-bit build reads the same large files and dates past 2038 as the
# 64-bit one. No public declaration uses off_t or time_t, so the choice
# stays inside the build.
set(CMAKE_C_FLAGS_INIT "-m32 -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-m32 -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
foreach(_kind EXE SHARED MODULE)
  set(CMAKE_${_kind}_LINKER_FLAGS_INIT "-m32")
endforeach()
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
# pkg-config looks only at i386 libraries (and architecture-free data), so
# that nothing 64-bit is found and then fails to link.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")

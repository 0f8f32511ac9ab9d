# Builds for 64-bit Windows, 10 and later, with Debian's g++-mingw-w64-x86-64-posix: everything is linked statically, so
# that a program needs no file beside it. scripts/build-windows-deps makes the libraries that are found here.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(mingw x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${mingw}-gcc-posix)
set(CMAKE_CXX_COMPILER ${mingw}-g++-posix)
set(CMAKE_RC_COMPILER ${mingw}-windres)

set(TRABEX_WINDOWS_DEPS ${CMAKE_CURRENT_LIST_DIR}/../build/windows-deps CACHE PATH "What scripts/build-windows-deps made")
set(CMAKE_FIND_ROOT_PATH /usr/${mingw} ${TRABEX_WINDOWS_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${TRABEX_WINDOWS_DEPS}/lib/pkgconfig)
set(OPENSSL_USE_STATIC_LIBS TRUE)

set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
# At the end of each command of the linker, since the static libraries above need them too.
set(CMAKE_CXX_STANDARD_LIBRARIES
  "-lws2_32 -liphlpapi -lcrypt32 -ladvapi32 -lgdi32 -luser32 -lshell32 -lole32 -lkernel32")

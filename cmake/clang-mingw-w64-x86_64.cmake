# Cross-compiles for Windows x86-64 with Debian's clang 16 and lld 16 against
# the same mingw-w64 headers, CRT and GCC runtime (posix thread model) as the
# GCC toolchain file.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TOOLCHAIN_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER clang-16)
set(CMAKE_CXX_COMPILER clang++-16)
set(CMAKE_C_COMPILER_TARGET ${TOOLCHAIN_PREFIX})
set(CMAKE_CXX_COMPILER_TARGET ${TOOLCHAIN_PREFIX})
set(CMAKE_RC_COMPILER ${TOOLCHAIN_PREFIX}-windres)

# clang's driver does not recognise Debian's "12-posix" folder as a GCC
# installation, so it finds neither libstdc++'s headers nor libgcc: name them.
file(GLOB MINGW_GCC_DIRS LIST_DIRECTORIES true /usr/lib/gcc/${TOOLCHAIN_PREFIX}/*-posix)
list(SORT MINGW_GCC_DIRS COMPARE NATURAL ORDER DESCENDING)
list(GET MINGW_GCC_DIRS 0 MINGW_GCC_DIR)
set(MINGW_CXX_INCLUDE ${MINGW_GCC_DIR}/include/c++)
# GCC's libstdc++ for mingw keeps its thread-local variables (std::call_once's)
# in emulated TLS; native TLS would not link against it.
set(CMAKE_C_FLAGS_INIT -femulated-tls)
set(CMAKE_CXX_FLAGS_INIT -femulated-tls)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${MINGW_CXX_INCLUDE}
    ${MINGW_CXX_INCLUDE}/${TOOLCHAIN_PREFIX} ${MINGW_CXX_INCLUDE}/backward)
# Left to itself the driver adds the build machine's /usr/include/c++; only
# compiles take -nostdinc++ (a link would warn that it is unused).
set(CMAKE_CXX_COMPILE_OBJECT
    "<CMAKE_CXX_COMPILER> -nostdinc++ <DEFINES> <INCLUDES> <FLAGS> -o <OBJECT> -c <SOURCE>")
# /usr/bin/ld.lld is lld 14, which refuses clang 16's export directives.
# -pthread links winpthreads, which the posix libstdc++ needs.
set(ZEPH_CLANG_LINK_FLAGS "-L${MINGW_GCC_DIR} --ld-path=/usr/lib/llvm-16/bin/ld.lld -pthread")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${ZEPH_CLANG_LINK_FLAGS})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${ZEPH_CLANG_LINK_FLAGS})
set(CMAKE_MODULE_LINKER_FLAGS_INIT ${ZEPH_CLANG_LINK_FLAGS})
# CMake asks the ELF flavour of ld.lld whether it knows --push-state; the
# mingw flavour does not, so whole archives use the plain on/off pair.
set(_CMAKE_LINKER_PUSHPOP_STATE_SUPPORTED FALSE CACHE INTERNAL "lld's mingw driver lacks it")

set(CMAKE_FIND_ROOT_PATH /usr/${TOOLCHAIN_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

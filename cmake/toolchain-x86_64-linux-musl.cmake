# x86-64 Linux on musl, the C library of OpenWrt: Debian's musl-tools and
# musl-dev (headers in /usr/include/x86_64-linux-musl, the static libc.a in
# /usr/lib/x86_64-linux-musl) under the host's g++, every program linked
# statically. The programs run on this machine as they are, so nothing here
# is a cross-build to CMake and the system tests drive them directly.
#
#   cmake -S . -B build-musl -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-x86_64-linux-musl.cmake \
#     -DCMAKE_BUILD_TYPE=Release
set(CMAKE_CXX_COMPILER g++)
set(musl_include /usr/include/x86_64-linux-musl)
set(musl_lib /usr/lib/x86_64-linux-musl)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpversion
                OUTPUT_VARIABLE gcc_major OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
                OUTPUT_VARIABLE gcc_include OUTPUT_STRIP_TRAILING_WHITESPACE)

# Only the kernel's own headers (linux/netlink.h and what it includes) may
# come from /usr/include, which is otherwise glibc's: a folder of links to
# them alone, so that no glibc header can stand in for a missing musl one.
set(kernel_include ${CMAKE_BINARY_DIR}/musl-kernel-include)
file(MAKE_DIRECTORY ${kernel_include})
foreach(link linux=/usr/include/linux asm-generic=/usr/include/asm-generic
             asm=/usr/include/x86_64-linux-gnu/asm)
  string(REPLACE "=" ";" link ${link})
  list(GET link 0 name)
  list(GET link 1 target)
  if(NOT EXISTS ${kernel_include}/${name})
    file(CREATE_LINK ${target} ${kernel_include}/${name} SYMBOLIC)
  endif()
endforeach()

# No standard folder of the host: the C++ library's headers first (its
# <cstdlib> and <cmath> include_next the C ones), then musl's, then GCC's own
# (intrinsics), then the kernel's.
#
# libstdc++'s headers are the host's, configured for glibc. We use only what
# they define inline (<atomic>, <algorithm>, and in devsim <string> and
# <vector>), never its compiled library: Debian's libstdc++.a calls glibc's
# __libc_single_threaded, arc4random and _dl_find_object, which musl does not
# have. Two glibc names in those headers need an answer from musl:
# - bits/os_defines.h tests glibc's version with __GLIBC_PREREQ, which musl
#   does not define: 0, no glibc of any version, is the truth;
# - bits/c++locale.h types its locale handle as glibc's __locale_t, musl's
#   locale_t (both a pointer to struct __locale_struct). No locale code of the
#   C++ library is linked, so the name only has to denote a type.
# The quotes keep the parentheses from the shell that runs the compiler.
string(JOIN " " CMAKE_CXX_FLAGS_INIT
  -nostdinc
  -isystem /usr/include/c++/${gcc_major}
  -isystem /usr/include/x86_64-linux-gnu/c++/${gcc_major}
  -isystem ${musl_include}
  -isystem ${gcc_include}
  -isystem ${kernel_include}
  "-D'__GLIBC_PREREQ(major, minor)=0'"
  -D__locale_t=locale_t)

# musl-dev's specs give the link its start files, musl's libc.a and GCC's
# libgcc, and no library folder of the host.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -specs=${musl_lib}/musl-gcc.specs")

# Neither runtime exists for musl here: the sanitizers' runtimes need glibc,
# and the C++ runtime (GoogleTest's, and devsim's elsewhere) is glibc's.
set(METERD_SANITIZE OFF CACHE BOOL "Sanitizers need glibc")
set(METERD_CXX_RUNTIME OFF CACHE BOOL "No C++ runtime for musl")

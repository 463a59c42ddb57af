# Compiles for musl with packages of Debian: clang-14, musl-dev, libc++-14-dev, libc++abi-14-dev, libunwind-14-dev and,
# for a few objects, gcc. The program is static and serves plain HTTP only, because musl's dlopen() always fails in a
# static program.
#     cmake -S . -B build/musl -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/x86_64-linux-musl.cmake
#
# Debian has no C++ library for musl. Its libc++ was compiled for glibc, and needs five functions that musl lacks. Three
# are checked variants of ordinary functions and take one more argument. Two print a message before abort().
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_CXX_COMPILER_TARGET x86_64-linux-musl)

set(musl /usr/lib/x86_64-linux-musl)
set(llvm /usr/lib/llvm-14)
foreach(object crtbeginS.o crtendS.o libgcc.a)
  execute_process(COMMAND gcc -print-file-name=${object} OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND gcc_objects ${path})
endforeach()
list(POP_FRONT gcc_objects begin end libgcc)

set(CMAKE_CXX_FLAGS_INIT "-nostdinc++ -nostdlibinc -isystem ${llvm}/include/c++/v1 \
-isystem /usr/include/x86_64-linux-musl -D_LIBCPP_HAS_MUSL_LIBC")
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-Qunused-arguments -static-pie -nostartfiles -nodefaultlibs ${musl}/rcrt1.o ${musl}/crti.o ${begin}")
foreach(pair __memmove_chk=memmove __wmemcpy_chk=wmemcpy __wmemmove_chk=wmemmove __fprintf_chk=abort
        __vfprintf_chk=abort)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,--defsym=${pair}")
endforeach()
set(CMAKE_CXX_STANDARD_LIBRARIES "${llvm}/lib/libc++.a ${llvm}/lib/libc++abi.a ${llvm}/lib/libunwind.a -L${musl} \
-lc ${libgcc} ${end} ${musl}/crtn.o")

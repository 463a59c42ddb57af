# The compiler and linker flags of our own code are in the interface target mivo_flags. The flags of a build type are
# global, because the linker needs them in every program.

add_library(mivo_flags INTERFACE)
target_compile_options(mivo_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  # Not in other projects: a compiler that is unknown to us may have more warnings, which must not stop their build.
  $<$<BOOL:${MIVO_STANDS_ALONE}>:-Werror>
  # The build gives the same bytes in every folder.
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")

# Release: optimised and hardened.
target_compile_options(mivo_flags INTERFACE
  $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection>)
target_link_options(mivo_flags INTERFACE
  $<$<CONFIG:Release>:-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed>)

# Asan: for the tests. The first finding ends the process.
set(CMAKE_CXX_FLAGS_ASAN
  "-O1 -g -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=all -D_GLIBCXX_ASSERTIONS")
set(CMAKE_EXE_LINKER_FLAGS_ASAN "-fsanitize=address,undefined")

# Tsan: for programs with threads. It cannot be in one program with the address sanitizer.
set(CMAKE_CXX_FLAGS_TSAN "-O1 -g -fno-omit-frame-pointer -fsanitize=thread")
set(CMAKE_EXE_LINKER_FLAGS_TSAN "-fsanitize=thread")

# Fuzz: like Asan, for the fuzzers. Clang does not define GCC's macro __SANITIZE_ADDRESS__. With that macro, any use of
# the memory of ended connections is a finding.
set(CMAKE_CXX_FLAGS_FUZZ "${CMAKE_CXX_FLAGS_ASAN} -D__SANITIZE_ADDRESS__=1")
set(CMAKE_EXE_LINKER_FLAGS_FUZZ "${CMAKE_EXE_LINKER_FLAGS_ASAN}")

# Coverage: counts which lines the tests reach. All processes of a run add their counts to a few files.
set(CMAKE_CXX_FLAGS_COVERAGE
  "-O1 -g -fprofile-instr-generate=${CMAKE_BINARY_DIR}/profiles/%4m.profraw -fcoverage-mapping")

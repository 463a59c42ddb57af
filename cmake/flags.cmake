# The compiler and linker flags of our own code, gathered in the interface target mivo_flags; those of a build
# type are global, for the linker needs them in every program.

add_library(mivo_flags INTERFACE)
target_compile_options(mivo_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  # A warning of a compiler that we have not met is no error in somebody else's project.
  $<$<BOOL:${MIVO_STANDS_ALONE}>:-Werror>
  # The same bytes come out whatever folder the build runs in.
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")

# Release: optimised and hardened.
target_compile_options(mivo_flags INTERFACE
  $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection>)
target_link_options(mivo_flags INTERFACE
  $<$<CONFIG:Release>:-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed>)

# Asan: what the tests run under. The first finding ends the process.
set(CMAKE_CXX_FLAGS_ASAN
  "-O1 -g -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=all -D_GLIBCXX_ASSERTIONS")
set(CMAKE_EXE_LINKER_FLAGS_ASAN "-fsanitize=address,undefined")

# Tsan: for what has threads. The address sanitizer cannot be in the same program.
set(CMAKE_CXX_FLAGS_TSAN "-O1 -g -fno-omit-frame-pointer -fsanitize=thread")
set(CMAKE_EXE_LINKER_FLAGS_TSAN "-fsanitize=thread")

# Fuzz: as Asan, for the fuzzers. Clang does not define GCC's macro, by which connection objects that have
# ended are hidden from use.
set(CMAKE_CXX_FLAGS_FUZZ "${CMAKE_CXX_FLAGS_ASAN} -D__SANITIZE_ADDRESS__=1")
set(CMAKE_EXE_LINKER_FLAGS_FUZZ "${CMAKE_EXE_LINKER_FLAGS_ASAN}")

# Coverage: counts what the tests reach. The processes of a run add up in a few files.
set(CMAKE_CXX_FLAGS_COVERAGE
  "-O1 -g -fprofile-instr-generate=${CMAKE_BINARY_DIR}/profiles/%4m.profraw -fcoverage-mapping")

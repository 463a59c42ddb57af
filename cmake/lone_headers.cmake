# add_lone_headers(TARGET LIBRARY FOLDER...): adds the target TARGET, which only the preset `clang` builds. It compiles
# every header of the folders alone, with LIBRARY's include paths, so a header that lacks an include is found. CMake
# 3.24 and later can do this on its own, but Debian 11 and Ubuntu 22.04 have older versions.
function(add_lone_headers target library)
  set(sources)
  foreach(folder ${ARGN})
    file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/${folder}/*.h)
    foreach(header ${headers})
      set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}/${header}.cpp)
      file(GENERATE OUTPUT ${source} CONTENT "#include \"${header}\"\n")
      list(APPEND sources ${source})
    endforeach()
  endforeach()
  add_library(${target} OBJECT EXCLUDE_FROM_ALL ${sources})
  target_link_libraries(${target} PRIVATE ${library} mivo_flags)
endfunction()

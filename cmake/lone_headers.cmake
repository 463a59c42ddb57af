# add_lone_headers(TARGET LIBRARY FOLDER...): the target TARGET, which only the preset `clang` builds, compiles every
# header of the folders alone, with LIBRARY's include paths: each includes what it needs. CMake can do that on its
# own from 3.24 on, which is more than Debian 11 and Ubuntu 22.04 have.
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

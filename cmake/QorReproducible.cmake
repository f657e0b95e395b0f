# The same sources give the same bytes, wherever and whenever they are built. With QOR_REPRODUCIBLE, debug information and
# the texts of __FILE__ name files below /usr/src/qor; "set substitute-path /usr/src/qor TREE" shows a debugger the sources.
# The developer presets keep the real paths.
set(CMAKE_CXX_ARCHIVE_CREATE "<CMAKE_AR> qcD <TARGET> <LINK_FLAGS> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")

function(qor_reproducible target)
  if(QOR_REPRODUCIBLE)
    # Of two maps that fit, the compiler takes the last: the build folder may lie in the tree.
    target_compile_options(${target} PRIVATE -ffile-prefix-map=${PROJECT_SOURCE_DIR}=/usr/src/qor
      -ffile-prefix-map=${PROJECT_BINARY_DIR}=/usr/src/qor/build)
  endif()
endfunction()

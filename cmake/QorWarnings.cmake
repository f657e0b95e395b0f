# The warnings that every target of this tree is built with. They are errors in the developer presets only.
function(qor_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wcast-qual -Wpointer-arith -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
  if(QOR_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Sanitizers and coverage for a target of this tree, as QOR_SANITIZE and QOR_COVERAGE say.
function(qor_sanitizers target)
  if(QOR_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${QOR_SANITIZE} -fno-omit-frame-pointer
      -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${QOR_SANITIZE})
  endif()
  if(QOR_COVERAGE)
    # Threads count on the same counters.
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()

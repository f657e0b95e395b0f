# Sanitizers and coverage for a target of this tree, as QOR_SANITIZE and QOR_COVERAGE say.
function(qor_sanitizers target)
  if(QOR_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${QOR_SANITIZE} -fno-omit-frame-pointer
      -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${QOR_SANITIZE})
  endif()
  if(QOR_COVERAGE)
    # The counters of all processes of a program lie in one file that they map (%c; %m tells programs apart), so they are
    # whole however a process ends: by exit, by _exit, by an assertion or by a kill. Threads and processes add atomically.
    set(profile -fprofile-instr-generate=${PROJECT_BINARY_DIR}/profile/%m%c.profraw)
    target_compile_options(${target} PRIVATE ${profile} -fcoverage-mapping -fprofile-update=atomic
      "SHELL:-mllvm -runtime-counter-relocation")
    target_link_options(${target} PRIVATE ${profile})
  endif()
endfunction()

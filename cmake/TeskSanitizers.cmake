# Sanitizers apply to the whole build, libraries and tests alike, so that a
# fault in a host stand-in shows up as clearly as one in the daemon.
if(TESK_SANITIZE)
  add_compile_options(-fsanitize=${TESK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TESK_SANITIZE})
endif()

# With fuzzers, every library carries libFuzzer's coverage instrumentation,
# so that a target is guided by the code it exercises and not only by its
# own harness. Binaries that are not fuzzers get the sanitizer runtime's
# empty coverage hooks and run as before.
if(TESK_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "TESK_FUZZ needs clang")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Source-based coverage for the report of what each fuzzer's corpus reaches
# (scripts/fuzz-coverage.sh).
option(TESK_COVERAGE "Build with clang's source-based coverage" OFF)
if(TESK_COVERAGE)
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()

# libFuzzer targets: one small executable per parser.
function(tesk_add_fuzzer name)
  if(NOT TESK_FUZZ)
    return()
  endif()
  add_executable(${name} ${ARGN})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE tesk::warnings)
  set_property(GLOBAL APPEND PROPERTY TESK_FUZZERS ${name})
endfunction()

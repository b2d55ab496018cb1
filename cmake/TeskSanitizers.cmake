# Sanitizers apply to the whole build, libraries and tests alike, so that a
# fault in a host stand-in shows up as clearly as one in the daemon.
if(TESK_SANITIZE)
  add_compile_options(-fsanitize=${TESK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TESK_SANITIZE})
endif()

# libFuzzer targets: one small executable per parser.
function(tesk_add_fuzzer name)
  if(NOT TESK_FUZZ)
    return()
  endif()
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "TESK_FUZZ needs clang")
  endif()
  add_executable(${name} ${ARGN})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE tesk::warnings)
  set_property(GLOBAL APPEND PROPERTY TESK_FUZZERS ${name})
endfunction()

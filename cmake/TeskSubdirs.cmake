# Adds each listed folder that has a CMakeLists.txt; lets a component land on
# its own without touching the lists of its neighbours.
function(tesk_add_subdirectories_if_present)
  foreach(dir IN LISTS ARGN)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/CMakeLists.txt)
      add_subdirectory(${dir})
    endif()
  endforeach()
endfunction()

# Adds every immediate child folder that has a CMakeLists.txt, in name order.
function(tesk_add_all_subdirectories)
  file(GLOB children LIST_DIRECTORIES true RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}
       ${CMAKE_CURRENT_SOURCE_DIR}/*)
  list(SORT children)
  foreach(dir IN LISTS children)
    if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${dir}
       AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/CMakeLists.txt)
      add_subdirectory(${dir})
    endif()
  endforeach()
endfunction()

# A GoogleTest binary registered with CTest. LABELS "concurrency" marks the
# tests that the ThreadSanitizer build runs.
function(tesk_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest_main
                        Threads::Threads tesk::warnings)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(T_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}")
  endif()
endfunction()

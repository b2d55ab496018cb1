# The daemon's folders compiled as a device tree would see them: beside the
# platform interfaces and the system headers there is nothing on the include
# path. The folders are copied into a tree of their own, so that a daemon file
# that includes a host stand-in's header, by a relative path too, fails the
# build.
set(boundary_root ${CMAKE_CURRENT_BINARY_DIR}/daemon_tree)
set(boundary_files)
foreach(folder IN ITEMS service dispatch scan deauth)
  file(GLOB files CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
       ${PROJECT_SOURCE_DIR}/${folder}/*.cpp ${PROJECT_SOURCE_DIR}/${folder}/*.h)
  foreach(file IN LISTS files)
    add_custom_command(OUTPUT ${boundary_root}/${file}
                       COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/${file}
                               ${boundary_root}/${file}
                       DEPENDS ${PROJECT_SOURCE_DIR}/${file} VERBATIM)
    list(APPEND boundary_files ${boundary_root}/${file})
  endforeach()
endforeach()

add_library(tesk_platform_boundary_check OBJECT ${boundary_files})
target_include_directories(tesk_platform_boundary_check PRIVATE ${boundary_root})
# The platform interfaces' usage requirements, the wire contract and the
# daemon's own settings; no host library's include folder.
target_link_libraries(tesk_platform_boundary_check PRIVATE tesk::platform tesk::contract
                      tesk::warnings)
target_compile_definitions(tesk_platform_boundary_check PRIVATE
                           $<TARGET_PROPERTY:tesk_scan,INTERFACE_COMPILE_DEFINITIONS>)

# `cmake --install` lays the host build out as a Linux user expects: programs
# in bin/, libraries in lib/, the client library's headers in include/, and a
# package config so that another project can find_package(teskclient).
# Targets are picked by name here, so their own folders stay install-agnostic.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(tesk_installed_programs tesk hostinit teskctl)
set(tesk_installed_libraries tarnsocket vela_client cutils)
# What a client links: the client library, the wire contract it is written
# against, and the IPC library it calls through.
set(tesk_exported_targets "")
foreach(target IN ITEMS teskclient tesk_contract tarnsocket)
  if(TARGET ${target})
    list(APPEND tesk_exported_targets ${target})
  endif()
endforeach()
set(tesk_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/teskclient)

# Installed programs find the installed libraries (and the daemon its dlopen
# of libtarnsocket.so) relative to themselves, wherever the prefix is.
file(RELATIVE_PATH tesk_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(target IN LISTS tesk_installed_programs)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${tesk_bin_to_lib}")
endforeach()
install(TARGETS ${tesk_installed_programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Shared stand-ins go beside the daemon; a static one is already inside it.
foreach(target IN LISTS tesk_installed_libraries)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "SHARED_LIBRARY" AND NOT target IN_LIST tesk_exported_targets)
    install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endforeach()

# Public include folders are the targets' `include` folders, installed as
# they are; inside the source tree they stay build-only, so the exported
# targets point at the installed copies instead.
function(tesk_install_public_headers target)
  get_target_property(dirs ${target} INTERFACE_INCLUDE_DIRECTORIES)
  if(NOT dirs)
    return()
  endif()
  set(rewritten "")
  foreach(dir IN LISTS dirs)
    if(dir MATCHES "^\\$<" OR NOT IS_ABSOLUTE "${dir}")
      list(APPEND rewritten "${dir}")
      continue()
    endif()
    if(dir MATCHES "/include$")
      install(DIRECTORY ${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
              FILES_MATCHING PATTERN "*.h")
    endif()
    list(APPEND rewritten "$<BUILD_INTERFACE:${dir}>")
  endforeach()
  list(APPEND rewritten "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  set_property(TARGET ${target} PROPERTY INTERFACE_INCLUDE_DIRECTORIES "${rewritten}")
endfunction()

# A static library carries its private link dependencies in its link
# interface, so the (build-only, hence empty) warnings block travels along.
set(tesk_export_set ${tesk_exported_targets} tesk_warnings)
foreach(target IN LISTS tesk_exported_targets)
  tesk_install_public_headers(${target})
endforeach()
set_target_properties(tesk_warnings PROPERTIES EXPORT_NAME warnings)
set_target_properties(teskclient PROPERTIES EXPORT_NAME teskclient)
if(TARGET tesk_contract)
  set_target_properties(tesk_contract PROPERTIES EXPORT_NAME contract)
endif()
install(TARGETS ${tesk_export_set} EXPORT teskclientTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT teskclientTargets NAMESPACE tesk:: DESTINATION ${tesk_package_dir})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/teskclientConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/teskclientConfig.cmake
                              INSTALL_DESTINATION ${tesk_package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/teskclientConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/teskclientConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/teskclientConfigVersion.cmake
        DESTINATION ${tesk_package_dir})

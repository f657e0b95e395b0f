# What `cmake --install` puts where: headers, the libraries, qor.pc, the CMake package, the manual pages of the flat
# functions, and what keeps cleaners of /tmp from the key files.
include(CMakePackageConfigHelpers)

install(TARGETS qor qor_static qorinspect EXPORT qorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/qor DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qor)
install(EXPORT qorTargets NAMESPACE qor:: DESTINATION ${package_dir})
configure_package_config_file(packaging/qorConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/qorConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qorConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qorConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/qorConfigVersion.cmake
  DESTINATION ${package_dir})

# Relative, so that the prefix may be chosen at installation.
file(RELATIVE_PATH pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
configure_file(packaging/qor.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qor.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qor.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# systemd reads it below /usr and below /usr/local.
install(FILES packaging/qor.tmpfiles DESTINATION lib/tmpfiles.d RENAME qor.conf)

find_program(QOR_PYTHON python3)
if(QOR_PYTHON)
  set(pages ${CMAKE_CURRENT_BINARY_DIR}/man3)
  add_custom_command(OUTPUT ${pages}/qor_flat.3
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${pages}
    COMMAND ${QOR_PYTHON} ${PROJECT_SOURCE_DIR}/scripts/man ${pages}
    DEPENDS scripts/man include/qor/flat.h VERBATIM)
  add_custom_target(qor_pages ALL DEPENDS ${pages}/qor_flat.3)
  install(DIRECTORY ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR})
endif()

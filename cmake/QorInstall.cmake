# What `cmake --install` puts where: headers, the libraries, qor.pc and the CMake package.
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

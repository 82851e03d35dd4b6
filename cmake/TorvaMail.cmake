# The layers of torva/ as one static library for programs outside this tree, and
# its installation: archive, headers, CMake package.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(layers libc util process maildb postfix/params postfix/mastercf postfix/tables)

set(objects)
foreach(layer IN LISTS layers)
  string(REPLACE "/" "_" name ${layer})
  list(APPEND objects $<TARGET_OBJECTS:torva_${name}>)
endforeach()

add_library(torva_mail STATIC ${objects})
set_target_properties(torva_mail PROPERTIES
  EXPORT_NAME mail OUTPUT_NAME torva-mail LINKER_LANGUAGE CXX)
target_compile_features(torva_mail PUBLIC cxx_std_17)
target_include_directories(torva_mail INTERFACE
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(torva_mail PUBLIC
  Boost::filesystem PkgConfig::mariadb PkgConfig::sqlite3)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TorvaMail)
install(TARGETS torva_mail EXPORT TorvaMailTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(EXPORT TorvaMailTargets NAMESPACE torva:: DESTINATION ${package_dir} COMPONENT dev)
foreach(layer IN LISTS layers)
  install(DIRECTORY torva/${layer}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/torva/${layer}
    COMPONENT dev FILES_MATCHING PATTERN "*.h")
endforeach()

configure_package_config_file(cmake/TorvaMailConfig.cmake.in TorvaMailConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(TorvaMailConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TorvaMailConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/TorvaMailConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT dev)

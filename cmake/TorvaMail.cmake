# The layers of torva/ as one static library for programs outside this tree, and
# its installation: archive, public headers, CMake package, pkg-config file.

include(CMakePackageConfigHelpers)

set(layers libc util process maildb postfix/params postfix/mastercf postfix/tables)

set(objects)
foreach(layer IN LISTS layers)
  torva_name_of(name ${layer})
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

# Which headers are public is told once, where the layers are made.
foreach(layer IN LISTS layers)
  torva_name_of(name ${layer})
  get_target_property(headers torva_${name} TORVA_PUBLIC_HEADERS)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/torva/${layer} COMPONENT dev)
endforeach()
configure_file(torva/version.h.in include/torva/version.h @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/include/torva/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/torva COMPONENT dev)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TorvaMail)
install(TARGETS torva_mail EXPORT TorvaMailTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(EXPORT TorvaMailTargets NAMESPACE torva:: DESTINATION ${package_dir} COMPONENT dev)
configure_package_config_file(cmake/TorvaMailConfig.cmake.in TorvaMailConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(TorvaMailConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TorvaMailConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/TorvaMailConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT dev)

# The prefix is told from where the file lies: an installed copy may be moved.
file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
configure_file(cmake/torva-mail.pc.in torva-mail.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/torva-mail.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

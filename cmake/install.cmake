# What a host needs to build against the library or the recorder layer and to run with them. All of it may be moved to
# another place.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(libraries wrapper_audio)
if(WRAPPER_AUDIO_RECORDER)
  list(APPEND libraries wrapper_audio_recorder)
endif()
install(TARGETS ${libraries} EXPORT wrapper_audio
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
list(TRANSFORM libraries APPEND .h OUTPUT_VARIABLE headers)
install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/wrapper_audio)
install(EXPORT wrapper_audio DESTINATION ${package_folder} COMPONENT development
  FILE wrapper_audio-targets.cmake NAMESPACE wrapper_audio::)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/wrapper_audio-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/wrapper_audio-config.cmake ${PROJECT_BINARY_DIR}/wrapper_audio-config-version.cmake
  DESTINATION ${package_folder} COMPONENT development)

set(pkgconfig_folder ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${pkgconfig_folder} OUTPUT_VARIABLE to_prefix)
file(RELATIVE_PATH to_header ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
file(RELATIVE_PATH to_library ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(library IN LISTS libraries)
  configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

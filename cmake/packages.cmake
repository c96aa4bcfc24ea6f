# The three Debian packages, a component each, and a part of the installs that carry their libraries along.
# scripts/package makes them all.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library development program)
set(CPACK_PACKAGE_CONTACT "wrapper_audio maintainers <maintainers@wrapper-audio.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}) # the libraries, which no package has yet
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libwrapper-audio${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SOURCE wrapper-audio)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "microphone capture with neural noise suppression (library)
wrapper_audio gives any program microphone capture as mono samples at the rate
it wants, with optional neural noise suppression, levels, a list of devices,
and signal functions for its own buffers. The recorder layer has a thread of
its own, tells errors as values, converts rates without aliases, and denoises
whatever rate the device runs at; the library below it does no more than it is
called for.
.
This package contains both shared libraries.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libwrapper-audio-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SOURCE wrapper-audio)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (= ${PROJECT_VERSION}), portaudio19-dev, librnnoise-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "microphone capture with neural noise suppression (development)
wrapper_audio gives any program microphone capture as mono samples at the rate
it wants, with optional neural noise suppression, levels, a list of devices,
and signal functions for its own buffers. The recorder layer has a thread of
its own, tells errors as values, converts rates without aliases, and denoises
whatever rate the device runs at; the library below it does no more than it is
called for.
.
This package contains what programs are built with: the headers, which are the
manuals too, and the files by which pkg-config and CMake find the libraries.")

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME wrapper-audio)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SUGGESTS libasound2-plugins)
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "record clean speech from the command line
wrapper-audio records a microphone as mono 16-bit samples into a file or a
pipe, with neural noise suppression if you like, lists the devices, shows the
level, and runs the same filters on files. Where a microphone does not work it
looks for the reason.
.
With libasound2-plugins it hears PulseAudio and PipeWire too.")

# The version stands in CMakeLists.txt; the changelog has to speak of the same one.
set(changelog ${PROJECT_SOURCE_DIR}/cmake/packages/changelog)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${changelog})
file(STRINGS ${changelog} newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^wrapper-audio \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "cmake/packages/changelog does not begin with an entry for ${PROJECT_VERSION}")
endif()
# Nobody but the packages installs these.
foreach(component LIBRARY DEVELOPMENT PROGRAM)
  string(TOLOWER ${component} lower_case)
  install(FILES ${changelog} cmake/packages/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME}
    COMPONENT ${lower_case} EXCLUDE_FROM_ALL)
endforeach()

# What installs that carry PortAudio with them have in the place of JACK's library.
add_library(system_jack SHARED EXCLUDE_FROM_ALL cmake/packages/system_jack.cpp)
target_link_libraries(system_jack PRIVATE wrapper_audio_warnings)
target_compile_options(system_jack PRIVATE -fno-exceptions -fno-rtti -Wno-deprecated-declarations)
set_target_properties(system_jack PROPERTIES
  OUTPUT_NAME jack
  SOVERSION 0
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/system_jack)

set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/packages/finish.cmake)
include(CPack)

# The CMake package, the pkg-config file and the Debian packages. Include it after all libraries.

install(EXPORT ${PROJECT_NAME} NAMESPACE mox:: FILE ${PROJECT_NAME}-targets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME} COMPONENT development)
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_NAME}-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/${PROJECT_NAME}-config.cmake ${PROJECT_BINARY_DIR}/${PROJECT_NAME}-config-version.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME} COMPONENT development)

get_property(libraries GLOBAL PROPERTY MOX_LIBRARIES)
list(TRANSFORM libraries PREPEND -l)
list(JOIN libraries " " MOX_PC_LIBRARIES)
string(REGEX REPLACE "[^/]+" ".." MOX_PC_TO_PREFIX ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
configure_file(cmake/${PROJECT_NAME}.pc.in ${PROJECT_NAME}.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/${PROJECT_NAME}.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The mox authors <mox@example.org>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENTS_ALL library development)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libmox-integration-gstreamer${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "gstreamer1.0-plugins-base (>= 1.22)")  # for "videoconvert"
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SUGGESTS "gstreamer1.0-plugins-bad, gstreamer1.0-vaapi")  # hardware decoders
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "The shared libraries")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libmox-integration-gstreamer-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The headers contain types of Boost, so a program needs the version with which the libraries are linked.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libgstreamer1.0-dev (>= 1.22), libboost-filesystem${Boost_VERSION_MAJOR}.${Boost_VERSION_MINOR}-dev, pkgconf")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS gstreamer1.0-plugins-good)  # for the README's program
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, CMake package and pkg-config file")

if(MOX_BUILD_EXAMPLES)
  list(APPEND CPACK_COMPONENTS_ALL examples)
  set(CPACK_DEBIAN_EXAMPLES_PACKAGE_NAME mox-integration-gstreamer-examples)
  set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SECTION video)
  set(CPACK_DEBIAN_EXAMPLES_PACKAGE_RECOMMENDS gstreamer1.0-plugins-good)
  set(CPACK_COMPONENT_EXAMPLES_DEPENDS library)
  set(CPACK_COMPONENT_EXAMPLES_DESCRIPTION "Example programs")
endif()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
    RENAME copyright COMPONENT ${component})
endforeach()
install(FILES README.md CHANGELOG.md DESTINATION
  ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME} COMPONENT development)
if(PROJECT_IS_TOP_LEVEL)
  include(CPack)
endif()

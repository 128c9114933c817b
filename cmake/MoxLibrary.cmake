# mox_library(<name> SOURCES <file>... HEADERS <file>... PRIVATE <header>... LINK <target>...)
#
# Builds one shared library of the tree: libmox_<name>.so with the target mox::<name>. HEADERS lists the public headers,
# relative to the folder: logger.h in mox/logging is included as "mox/logging/logger.h". PRIVATE lists the headers that
# are not installed.
function(mox_library name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;HEADERS;PRIVATE;LINK")
  set(target mox_${name})
  add_library(${target} SHARED ${ARG_SOURCES} ${ARG_PRIVATE})
  add_library(mox::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${name} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    BUILD_RPATH_USE_ORIGIN ON INSTALL_RPATH "$ORIGIN")
  target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARG_HEADERS})
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_link_libraries(${target} PUBLIC ${ARG_LINK})
  # No other library interposes its symbols, so the library calls its own functions directly.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition)
  target_link_options(${target} PRIVATE LINKER:--no-undefined LINKER:-Bsymbolic-functions)
  install(TARGETS ${target} EXPORT ${PROJECT_NAME}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
  set_property(GLOBAL APPEND PROPERTY MOX_LIBRARIES ${target})
endfunction()

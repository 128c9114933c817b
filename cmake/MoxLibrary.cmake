# mox_library(<name> SOURCES <file>... HEADERS <file>... LINK <target>...)
#
# One shared library of the tree: libmox_<name>.so with the target mox::<name>. HEADERS are the public ones, named as they
# are included ("mox/logging/logger.h" is logger.h in mox/logging).
function(mox_library name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;HEADERS;LINK")
  set(target mox_${name})
  add_library(${target} SHARED ${ARG_SOURCES} ${ARG_HEADERS})
  add_library(mox::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${name} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    BUILD_RPATH_USE_ORIGIN ON INSTALL_RPATH "$ORIGIN")
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PUBLIC ${ARG_LINK})
  target_link_options(${target} PRIVATE LINKER:--no-undefined)
  foreach(header IN LISTS ARG_HEADERS)
    cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE folder)
    cmake_path(GET header PARENT_PATH below)
    install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder}/${below})
  endforeach()
  install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()

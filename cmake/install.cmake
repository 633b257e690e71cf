# `cmake --install`: the library, its headers, the tvoxsp tool, the host stand-ins (libtinyalsa,
# libagmmixer and their headers) and libtvoxsp.pc. Everything is found relative to the prefix
# (pkg-config's ${pcfiledir}, the binaries' $ORIGIN), so the installed tree can be moved.
include(GNUInstallDirs)

set(TVOXSP_INSTALL_TARGETS tvoxsp tinyalsa)
if(TARGET agmmixer)
  list(APPEND TVOXSP_INSTALL_TARGETS agmmixer)
endif()
if(TARGET tvoxsp_tool)
  list(APPEND TVOXSP_INSTALL_TARGETS tvoxsp_tool)
endif()
file(RELATIVE_PATH TVOXSP_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(target ${TVOXSP_INSTALL_TARGETS})
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(origin "$ORIGIN/${TVOXSP_BIN_TO_LIB}")
  else()
    set(origin "$ORIGIN")
  endif()
  set_property(TARGET ${target} PROPERTY INSTALL_RPATH "${origin};${CMAKE_INSTALL_RPATH}")
endforeach()
install(TARGETS ${TVOXSP_INSTALL_TARGETS})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tvoxsp TYPE INCLUDE)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/linux/tinyalsa/include/tinyalsa TYPE INCLUDE)
if(TARGET agmmixer)
  install(FILES ${PROJECT_SOURCE_DIR}/platform/linux/agm/include/agmmixer.h TYPE INCLUDE)
endif()

file(RELATIVE_PATH TVOXSP_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" TVOXSP_PC_TO_PREFIX "${TVOXSP_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/libtvoxsp.pc.in ${PROJECT_BINARY_DIR}/libtvoxsp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libtvoxsp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Installation: headers, both libraries, the tools, a pkg-config file, a CMake
# package, the guides and the example sources.
#
# An installed tree works wherever it is put: the pkg-config file finds its
# prefix from its own location, the CMake package does the same, and the
# installed programs find the library through a run path relative to
# themselves. Only a directory configured as an absolute path
# (-DCMAKE_INSTALL_LIBDIR=/usr/lib64, say) is written as that absolute path.
include(CMakePackageConfigHelpers)

# The C++ runtime the static library needs when a C compiler drives the link:
# what the C++ compiler links implicitly and the C compiler does not (with GCC,
# stdc++ and m). Full paths and flags pass through; plain names become -l flags
# for pkg-config.
set(FANOUT_CXX_RUNTIME)
foreach(lib IN LISTS CMAKE_CXX_IMPLICIT_LINK_LIBRARIES)
  if(NOT lib IN_LIST CMAKE_C_IMPLICIT_LINK_LIBRARIES AND NOT lib IN_LIST FANOUT_CXX_RUNTIME)
    list(APPEND FANOUT_CXX_RUNTIME ${lib})
  endif()
endforeach()
# A C-only consumer of the archive (find_package from a project without CXX)
# links it with the C driver, so the runtime travels with the target.
target_link_libraries(fanout_static INTERFACE ${FANOUT_CXX_RUNTIME})

set(_pc_private)
foreach(lib IN LISTS FANOUT_CXX_RUNTIME CMAKE_THREAD_LIBS_INIT CMAKE_DL_LIBS)
  if(lib MATCHES "^-" OR IS_ABSOLUTE "${lib}")
    list(APPEND _pc_private "${lib}")
  else()
    list(APPEND _pc_private "-l${lib}")
  endif()
endforeach()
list(REMOVE_DUPLICATES _pc_private)
list(JOIN _pc_private " " FANOUT_PC_LIBS_PRIVATE)

# Directories as seen from the .pc file and from the installed programs.
set(_relocatable TRUE)
foreach(d CMAKE_INSTALL_BINDIR CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
  if(IS_ABSOLUTE "${${d}}")
    set(_relocatable FALSE)
  endif()
endforeach()
if(_relocatable)
  # RELATIVE_PATH needs absolute paths; any common root gives the same answer.
  file(RELATIVE_PATH _up /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
  string(REGEX REPLACE "/$" "" _up "${_up}")
  set(FANOUT_PC_PREFIX "\${pcfiledir}/${_up}")
  set(FANOUT_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(FANOUT_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
  file(RELATIVE_PATH _lib_from_bin /p/${CMAKE_INSTALL_BINDIR} /p/${CMAKE_INSTALL_LIBDIR})
  set(FANOUT_INSTALL_RPATH "\$ORIGIN/${_lib_from_bin}")
else()
  set(FANOUT_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(FANOUT_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(FANOUT_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
  set(FANOUT_INSTALL_RPATH "${CMAKE_INSTALL_FULL_LIBDIR}")
endif()

# Every program built under tools/ is installed beside the library and finds
# it through its run path; the build tree keeps CMake's own absolute one.
# (A fuzzing build adds no tools.)
set(_tool_lists)
if(NOT FANOUT_FUZZ)
  file(GLOB _tool_lists CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/*/CMakeLists.txt)
endif()
foreach(f IN LISTS _tool_lists)
  get_filename_component(_dir ${f} DIRECTORY)
  get_property(_targets DIRECTORY ${_dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(t IN LISTS _targets)
    get_target_property(_type ${t} TYPE)
    if(_type STREQUAL "EXECUTABLE")
      set_target_properties(${t} PROPERTIES INSTALL_RPATH "${FANOUT_INSTALL_RPATH}")
    endif()
  endforeach()
endforeach()

install(TARGETS fanout fanout_static EXPORT fanoutTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/fanout DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(EXPORT fanoutTargets NAMESPACE fanout:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fanout)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/fanoutConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/fanoutConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fanout)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/fanoutConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/fanoutConfig.cmake ${PROJECT_BINARY_DIR}/fanoutConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fanout)
configure_file(${PROJECT_SOURCE_DIR}/cmake/fanout.pc.in ${PROJECT_BINARY_DIR}/fanout.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/fanout.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The guides, and the example programs as sources a user builds against the
# installed copy (examples/CMakeLists.txt builds and runs them in the tree).
file(GLOB _guides CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
file(GLOB _examples CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/*.c)
install(FILES ${_guides} DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${_examples} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

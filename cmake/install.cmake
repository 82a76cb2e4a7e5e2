# Installation: headers, both libraries, a pkg-config file and a CMake package.
include(CMakePackageConfigHelpers)

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

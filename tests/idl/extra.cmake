# Interoperability of our CDR with an independent CORBA ORB (omniORB), built only when omniidl
# and the ORB's development files are installed (Debian: omniidl, libomniorb4-dev).
find_program(FANOUT_OMNIIDL omniidl)
find_package(PkgConfig QUIET)
if(FANOUT_OMNIIDL AND PKG_CONFIG_FOUND)
  pkg_check_modules(FANOUT_OMNIORB4 QUIET IMPORTED_TARGET omniORB4 omniDynamic4)
endif()

if(FANOUT_OMNIIDL AND FANOUT_OMNIORB4_FOUND AND TARGET fanout_properties)
  set(_interop_idl ${CMAKE_CURRENT_SOURCE_DIR}/idl/interop/fanout2.idl)
  set(_interop_gen ${CMAKE_CURRENT_BINARY_DIR}/idl_interop)
  add_custom_command(
    OUTPUT ${_interop_gen}/fanout2.hh ${_interop_gen}/fanout2SK.cc ${_interop_gen}/fanout2DynSK.cc
    COMMAND ${CMAKE_COMMAND} -E make_directory ${_interop_gen}
    COMMAND ${FANOUT_OMNIIDL} -bcxx -Wba -C${_interop_gen} ${_interop_idl}
    DEPENDS ${_interop_idl}
    COMMENT "omniidl fanout2.idl"
    VERBATIM)
  add_executable(test_idl_interop ${CMAKE_CURRENT_SOURCE_DIR}/idl/interop/interop_test.cpp
                                  ${_interop_gen}/fanout2SK.cc ${_interop_gen}/fanout2DynSK.cc)
  target_include_directories(test_idl_interop PRIVATE ${_interop_gen})
  target_compile_definitions(test_idl_interop PRIVATE _GNU_SOURCE)
  # The generated stubs are not ours to hold to our warning flags.
  target_link_libraries(test_idl_interop PRIVATE fanout_properties PkgConfig::FANOUT_OMNIORB4
                        GTest::gtest GTest::gtest_main)
  gtest_discover_tests(test_idl_interop DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60)
endif()

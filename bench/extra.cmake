# The marshalling benchmark compares with omniORB's cdrMemoryStream when
# omniidl and the omniORB development files are installed (Debian: omniidl,
# libomniorb4-dev); without them it runs against memcpy only.
if(TARGET idl_marshal_bench)
  find_program(FANOUT_OMNIIDL omniidl)
  find_package(PkgConfig QUIET)
  if(FANOUT_OMNIIDL AND PKG_CONFIG_FOUND)
    pkg_check_modules(FANOUT_OMNIORB4 QUIET IMPORTED_TARGET omniORB4 omniDynamic4)
  endif()
  if(FANOUT_OMNIIDL AND FANOUT_OMNIORB4_FOUND)
    set(_bench_idl ${PROJECT_SOURCE_DIR}/tests/idl/interop/fanout2.idl)
    set(_bench_gen ${CMAKE_CURRENT_BINARY_DIR}/idl_bench)
    add_custom_command(
      OUTPUT ${_bench_gen}/fanout2.hh ${_bench_gen}/fanout2SK.cc ${_bench_gen}/fanout2DynSK.cc
      COMMAND ${CMAKE_COMMAND} -E make_directory ${_bench_gen}
      COMMAND ${FANOUT_OMNIIDL} -bcxx -Wba -C${_bench_gen} ${_bench_idl}
      DEPENDS ${_bench_idl}
      COMMENT "omniidl fanout2.idl (benchmark)"
      VERBATIM)
    target_sources(idl_marshal_bench PRIVATE ${_bench_gen}/fanout2SK.cc
                                             ${_bench_gen}/fanout2DynSK.cc)
    target_include_directories(idl_marshal_bench PRIVATE ${_bench_gen})
    target_compile_definitions(idl_marshal_bench PRIVATE FANOUT_BENCH_OMNIORB=1)
    target_link_libraries(idl_marshal_bench PRIVATE PkgConfig::FANOUT_OMNIORB4)
  endif()
endif()

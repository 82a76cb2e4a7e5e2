# Every public header must compile on its own, as C11 and as C++20.
file(GLOB _public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/fanout/*.h)
set(_header_srcs)
foreach(h IN LISTS _public_headers)
  get_filename_component(hn ${h} NAME_WE)
  set(c ${CMAKE_CURRENT_BINARY_DIR}/headers/${hn}_c.c)
  set(cc ${CMAKE_CURRENT_BINARY_DIR}/headers/${hn}_cxx.cpp)
  file(WRITE ${c}.in "#include <fanout/${hn}.h>\nint fanout_header_${hn}_c(void) { return 0; }\n")
  file(WRITE ${cc}.in "#include <fanout/${hn}.h>\nint fanout_header_${hn}_cxx() { return 0; }\n")
  configure_file(${c}.in ${c} COPYONLY)
  configure_file(${cc}.in ${cc} COPYONLY)
  list(APPEND _header_srcs ${c} ${cc})
endforeach()
if(_header_srcs)
  add_library(fanout_header_test OBJECT ${_header_srcs})
  target_include_directories(fanout_header_test PRIVATE ${PROJECT_SOURCE_DIR}/include)
  target_compile_options(fanout_header_test PRIVATE -Wall -Wextra -Werror
                         $<$<COMPILE_LANGUAGE:C>:-pedantic -std=c11>)
endif()

# The installed tree, moved away from where it was installed, works for a C
# program through pkg-config and find_package (shared and static), and its
# tool and examples run. A sanitizer build is not installable as it is.
find_program(FANOUT_PKG_CONFIG pkg-config)
if(FANOUT_PKG_CONFIG AND NOT FANOUT_SANITIZE)
  add_test(NAME install.relocated_prefix
           COMMAND ${CMAKE_COMMAND} -E env CC=${CMAKE_C_COMPILER} "FANOUT_CC_FLAGS=${CMAKE_C_FLAGS}"
                   "FANOUT_TOOLCHAIN=${CMAKE_TOOLCHAIN_FILE}"
                   sh ${CMAKE_CURRENT_SOURCE_DIR}/install/install_test.sh
                   ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR})
  # A bound should a step hang (two CMake configurations and a dozen links take seconds).
  set_tests_properties(install.relocated_prefix PROPERTIES TIMEOUT 300)
endif()

# The shared library exports the interface and hides its internals.
add_test(NAME install.exported_symbols
         COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/install/symbols_test.sh $<TARGET_FILE:fanout>)

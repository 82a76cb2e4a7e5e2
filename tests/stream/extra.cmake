# libFerryClient.so, the delivery service's stand-in client library, is built from
# ferry_double.cpp into a directory of its own (so nothing finds it by accident), and once more
# without "ReleaseFile" into another. ferry_test links the complete one in; the probe loads it
# by base name or through the service's configuration file in processes of its own.
if(TARGET test_stream_ferry_test)
  foreach(_variant ferry_double ferry_incomplete)
    add_library(fanout_${_variant} SHARED ${CMAKE_CURRENT_LIST_DIR}/ferry_double.cpp)
    set_target_properties(fanout_${_variant} PROPERTIES OUTPUT_NAME FerryClient
      LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/${_variant})
    target_include_directories(fanout_${_variant} PRIVATE ${PROJECT_SOURCE_DIR}/include)
    target_link_libraries(fanout_${_variant} PRIVATE Threads::Threads)
    target_compile_options(fanout_${_variant} PRIVATE ${FANOUT_WARNINGS})
  endforeach()
  target_compile_definitions(fanout_ferry_incomplete PRIVATE FERRY_DOUBLE_INCOMPLETE)

  add_executable(test_stream_ferry_probe ${CMAKE_CURRENT_LIST_DIR}/ferry_probe.cpp)
  target_link_libraries(test_stream_ferry_probe PRIVATE fanout_stream ${CMAKE_DL_LIBS})
  target_compile_options(test_stream_ferry_probe PRIVATE ${FANOUT_WARNINGS})

  target_link_libraries(test_stream_ferry_test PRIVATE fanout_ferry_double)
  target_compile_definitions(test_stream_ferry_test PRIVATE
    FERRY_PROBE="$<TARGET_FILE:test_stream_ferry_probe>"
    FERRY_DOUBLE_DIR="$<TARGET_FILE_DIR:fanout_ferry_double>"
    FERRY_INCOMPLETE_DIR="$<TARGET_FILE_DIR:fanout_ferry_incomplete>")
  add_dependencies(test_stream_ferry_test test_stream_ferry_probe fanout_ferry_incomplete)
endif()

# search_test runs the depot administration tool to store a segment and write its image.
if(TARGET test_stream_search_test AND TARGET fanout-depot)
  target_compile_definitions(test_stream_search_test PRIVATE
                             FANOUT_DEPOT_TOOL="$<TARGET_FILE:fanout-depot>")
  add_dependencies(test_stream_search_test fanout-depot)
endif()

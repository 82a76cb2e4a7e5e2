# test_stream_search_test runs the depot administration tool to store a
# segment and write its image, then reads both back through streams; it also
# links the delivery service's stand-in client library (built by the
# delivery-service section of extra.cmake) to learn type-11 sizes.
if(TARGET test_stream_search_test AND TARGET fanout-depot)
  target_compile_definitions(test_stream_search_test PRIVATE
                             FANOUT_DEPOT_TOOL="$<TARGET_FILE:fanout-depot>")
  add_dependencies(test_stream_search_test fanout-depot)
endif()
if(TARGET test_stream_search_test AND TARGET fanout_ferry_double)
  target_link_libraries(test_stream_search_test PRIVATE fanout_ferry_double)
  target_compile_definitions(test_stream_search_test PRIVATE FANOUT_FERRY_DOUBLE=1)
endif()

# The distribution programs, run as real processes over real sockets.
if(TARGET fanout-send AND TARGET fanout-receive AND TARGET fanout-relay AND TARGET fanout-status)
  add_executable(test_tools_programs ${CMAKE_CURRENT_LIST_DIR}/programs_test.cpp)
  target_link_libraries(test_tools_programs PRIVATE fanout GTest::gtest
                        GTest::gtest_main)
  target_compile_definitions(test_tools_programs PRIVATE _GNU_SOURCE
                             FANOUT_SEND="$<TARGET_FILE:fanout-send>"
                             FANOUT_RECEIVE="$<TARGET_FILE:fanout-receive>"
                             FANOUT_RELAY="$<TARGET_FILE:fanout-relay>"
                             FANOUT_STATUS="$<TARGET_FILE:fanout-status>")
  target_compile_options(test_tools_programs PRIVATE ${FANOUT_WARNINGS})
  add_dependencies(test_tools_programs fanout-send fanout-receive fanout-relay fanout-status)
  gtest_discover_tests(test_tools_programs DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
endif()

# The Depot stress program (tests/depot/stress): several processes of random
# operations on one depot, then a full consistency check. A short run in the
# strict lock mode is a test; longer runs, and runs of the default mode, are
# made by hand:
#   depot_stress --mode strict --runs 20
#   depot_stress --mode default --runs 20
add_executable(depot_stress ${CMAKE_CURRENT_SOURCE_DIR}/depot/stress/stress.cpp)
target_link_libraries(depot_stress PRIVATE fanout_depot)
target_compile_definitions(depot_stress PRIVATE _GNU_SOURCE _FILE_OFFSET_BITS=64)
target_compile_options(depot_stress PRIVATE ${FANOUT_WARNINGS})
add_test(NAME depot_stress_strict
         COMMAND depot_stress --mode strict --runs 1 --processes 4 --ops 400)
# Not a time limit on the work: a guard against a deadlock hanging the suite.
set_tests_properties(depot_stress_strict PROPERTIES TIMEOUT 600)

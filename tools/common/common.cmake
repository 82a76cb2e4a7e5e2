# The code the distribution programs share (fanout-send, fanout-receive,
# fanout-relay, fanout-status): the wire between them, the sending and the
# receiving side. Each program's CMakeLists includes this file; the guard
# defines the object library once, whichever program comes first.
include_guard(GLOBAL)
find_package(OpenSSL REQUIRED GLOBAL)
find_package(Threads REQUIRED)
add_library(fanout_dist_common OBJECT
            ${CMAKE_CURRENT_LIST_DIR}/wire.cpp ${CMAKE_CURRENT_LIST_DIR}/sender.cpp
            ${CMAKE_CURRENT_LIST_DIR}/receiver.cpp ${CMAKE_CURRENT_LIST_DIR}/serve.cpp
            ${CMAKE_CURRENT_LIST_DIR}/support.cpp ${CMAKE_CURRENT_LIST_DIR}/relay.cpp)
target_include_directories(fanout_dist_common PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(fanout_dist_common PUBLIC fanout OpenSSL::Crypto Threads::Threads)
target_compile_options(fanout_dist_common PRIVATE ${FANOUT_WARNINGS})
target_compile_definitions(fanout_dist_common PUBLIC _GNU_SOURCE _FILE_OFFSET_BITS=64)

# One distribution program: its sources, the shared code, its man page.
function(fanout_dist_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE fanout_dist_common fanout OpenSSL::Crypto Threads::Threads)
  target_compile_options(${name} PRIVATE ${FANOUT_WARNINGS})
  install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/docs/${name}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()

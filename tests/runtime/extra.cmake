# The transport raises messages of the service's catalogue with its own copies
# of their texts (the runtime sits below the catalogue's module); its test
# checks them against Fanout2Catalog, so it links the module that holds it.
if(TARGET test_runtime_transport_test AND TARGET fanout_idl)
  target_link_libraries(test_runtime_transport_test PRIVATE fanout_idl)
endif()

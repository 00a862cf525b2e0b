# The tests run in a Wine prefix that nothing else uses, and every test run starts Wine's services in it anew and ends
# them: what other programs leave behind or kill does not reach a test. The services stay for the whole run, because they
# keep the output of the program that starts them open: started by a test, that one would seem to run for as long as
# they do. Two runs at once in one build folder would end each other's services; scripts/test does not allow it.
set(VEXEL_TEST_WINEPREFIX ${CMAKE_BINARY_DIR}/wine)

function(vexel_wine_services)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    foreach(step start stop)
      add_test(NAME wine.${step} COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} --${step})
      set_tests_properties(wine.${step} PROPERTIES
        TIMEOUT 240 ENVIRONMENT VEXEL_WINEPREFIX=${VEXEL_TEST_WINEPREFIX})
    endforeach()
    set_tests_properties(wine.start PROPERTIES FIXTURES_SETUP wine)
    set_tests_properties(wine.stop PROPERTIES FIXTURES_CLEANUP wine)
  endif()
endfunction()

# All tests of the current directory need the services.
function(vexel_tests_need_wine)
  get_property(tests DIRECTORY PROPERTY TESTS)
  set_property(TEST ${tests} APPEND PROPERTY FIXTURES_REQUIRED wine)
  set_property(TEST ${tests} APPEND PROPERTY ENVIRONMENT VEXEL_WINEPREFIX=${VEXEL_TEST_WINEPREFIX})
endfunction()

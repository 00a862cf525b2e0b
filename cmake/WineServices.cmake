# Every test of the current directory waits for Wine's services. They keep the output of the program that starts them
# open: started by a test, that one would seem to run for as long as they do.
function(vexel_tests_need_wine)
  get_property(tests DIRECTORY PROPERTY TESTS)
  set_property(TEST ${tests} APPEND PROPERTY FIXTURES_REQUIRED wine)
endfunction()

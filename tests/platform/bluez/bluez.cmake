# The BlueZ backend's tests (here and the end-to-end suite's) need the backend's sources, which are built
# only when sdbus-c++ is found; without them the suite compiles to one skipped test.
if(NOT QLT_WITH_BLUEZ)
  foreach(suite qlt_tests_bluez qlt_tests_e2e)
    if(TARGET ${suite})
      target_compile_definitions(${suite} PRIVATE QLT_TESTS_WITHOUT_BLUEZ=1)
    endif()
  endforeach()
endif()

# The qlt tool on the BlueZ backend runs in tests/qlt.cmake (qlt.OnTheMockBluez), one run of the
# mock for all of its commands.

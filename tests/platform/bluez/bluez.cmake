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

# One seeded lossy echo over the mock (5 % of writes and of notifications lost): it completes,
# with at most one segment sent again per segment delivered. The figures over many seeds and
# larger echoes come from the same script run as a benchmark (docs/bluez.md).
if(TARGET qlt AND QLT_WITH_BLUEZ AND EXISTS /usr/bin/dbus-daemon)
  add_test(NAME bluez.LossyEchoKeepsItsResendsBounded
    COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/bench/mock_bus_loss.py --seeds 1 --bytes 25000
            --loss write=0.05,notify=0.05)
  set_tests_properties(bluez.LossyEchoKeepsItsResendsBounded PROPERTIES LABELS "bluez"
                       ENVIRONMENT "QLT_BIN=$<TARGET_FILE:qlt>" TIMEOUT 120)
endif()

# The BlueZ backend's tests (here and the end-to-end suite's) need the backend's sources, which are built
# only when sdbus-c++ is found; without them the suite compiles to one skipped test.
if(NOT QLT_WITH_BLUEZ)
  foreach(suite qlt_tests_bluez qlt_tests_e2e)
    if(TARGET ${suite})
      target_compile_definitions(${suite} PRIVATE QLT_TESTS_WITHOUT_BLUEZ=1)
    endif()
  endforeach()
endif()

# The qlt tool on the BlueZ backend, beyond tests/qlt.cmake's qlt.OnTheMockBluez: a scan
# for the UART service only (the heart-rate sensor must not show) and a bench through the
# chunking transport. The harness exits with 125, a skip, when it cannot start the mock.
if(TARGET qlt AND QLT_WITH_BLUEZ)
  set(QLT_BLUEZ_HARNESS /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/mock_bluez.py --)
  add_test(NAME qlt_bluez.scan_nus
           COMMAND ${QLT_BLUEZ_HARNESS} $<TARGET_FILE:qlt> scan --platform bluez --nus --json --timeout 1.5)
  set_tests_properties(qlt_bluez.scan_nus PROPERTIES
    PASS_REGULAR_EXPRESSION "\"name\":\"QLT-Chunk\""
    FAIL_REGULAR_EXPRESSION "HR-Sensor;command exited"
    SKIP_RETURN_CODE 125 TIMEOUT 120 LABELS "bluez;qlt")
  add_test(NAME qlt_bluez.bench_nus
           COMMAND ${QLT_BLUEZ_HARNESS} $<TARGET_FILE:qlt> bench --platform bluez --device QLT-Chunk
                   --transport nus --bytes 10240 --pings 5 --json)
  set_tests_properties(qlt_bluez.bench_nus PROPERTIES
    PASS_REGULAR_EXPRESSION "\"verified\":true"
    FAIL_REGULAR_EXPRESSION "command exited"
    SKIP_RETURN_CODE 125 TIMEOUT 120 LABELS "bluez;qlt")
endif()

# The qlt tool's tests: they run the built binary as a user would (output, exit codes, a
# chat through a pseudo-terminal) and check a few of the tool's helpers directly.
# Registered only when the tool is built.
if(TARGET qlt)
  file(GLOB QLT_TOOL_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tools/qlt/*.cpp)
  add_executable(qlt_tests_qlt ${QLT_TOOL_TEST_SOURCES})
  target_link_libraries(qlt_tests_qlt PRIVATE qlt_cli GTest::gtest_main util)
  target_compile_definitions(qlt_tests_qlt PRIVATE QLT_TOOL_PATH="$<TARGET_FILE:qlt>"
                             QLT_TOOL_TEST_DATA="${CMAKE_CURRENT_SOURCE_DIR}/tools/qlt")
  add_dependencies(qlt_tests_qlt qlt)
  gtest_discover_tests(qlt_tests_qlt
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120 LABELS "qlt"
    EXTRA_ARGS --gtest_brief=1)
endif()

# The tool on the BlueZ backend, against the mock bluetoothd on a private bus (see
# tests/platform/bluez/README.md): a scan, an echo bench and a chat that ends at end of input.
if(TARGET qlt AND QLT_WITH_BLUEZ AND EXISTS /usr/bin/dbus-daemon)
  add_test(NAME qlt.OnTheMockBluez
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/platform/bluez/run_with_mock_bus.sh --
            ${CMAKE_CURRENT_SOURCE_DIR}/tools/qlt/on_mock_bluez.sh $<TARGET_FILE:qlt>)
  set_tests_properties(qlt.OnTheMockBluez PROPERTIES LABELS "qlt;bluez" TIMEOUT 120
                       SKIP_RETURN_CODE 125)
endif()

# The firmware kit: SLIP and the device layer as units, then its example device end to end
# through the simulated radio: the host build always, the micro:bit image under QEMU when the
# Cortex-M0 build and qemu-system-arm are there.
qlt_add_test_suite(firmware)
if(TARGET qlt_tests_firmware)
  target_sources(qlt_tests_firmware PRIVATE $<TARGET_OBJECTS:qlt_fw_layer>
                 $<TARGET_OBJECTS:qlt_fw_slip>)
  target_include_directories(qlt_tests_firmware PRIVATE ${QLT_FW_INCLUDES})
  target_compile_definitions(qlt_tests_firmware PRIVATE
    QLT_FW_HOST_ECHO="$<TARGET_FILE:qlt-fw-echo>")
  add_dependencies(qlt_tests_firmware qlt-fw-echo)
  find_program(QLT_QEMU_SYSTEM_ARM qemu-system-arm)
  if(QLT_QEMU_SYSTEM_ARM AND TARGET qlt_firmware_m0)
    target_compile_definitions(qlt_tests_firmware PRIVATE
      QLT_QEMU_SYSTEM_ARM="${QLT_QEMU_SYSTEM_ARM}"
      QLT_FW_MICROBIT="${QLT_FIRMWARE_MICROBIT}"
      QLT_FW_MICROBIT_RESTART="${QLT_FIRMWARE_MICROBIT_RESTART}"
      QLT_FW_MICROBIT_EVENTS="${QLT_FIRMWARE_MICROBIT_EVENTS}"
      QLT_FW_MICROBIT_EVENTS_RESTART="${QLT_FIRMWARE_MICROBIT_EVENTS_RESTART}")
    add_dependencies(qlt_tests_firmware qlt_firmware_m0)
  else()
    message(STATUS "qemu-system-arm or the Cortex-M0 build missing: no emulated-chip tests")
  endif()
endif()
if(TARGET qlt_tests_firmware AND TARGET qlt)
  # `qlt bridge` against the kit's device, run as a user runs it.
  target_sources(qlt_tests_firmware PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tools/qlt/RunTool.cpp)
  target_include_directories(qlt_tests_firmware PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tools/qlt)
  target_link_libraries(qlt_tests_firmware PRIVATE util)
  target_compile_definitions(qlt_tests_firmware PRIVATE QLT_TOOL_PATH="$<TARGET_FILE:qlt>")
  add_dependencies(qlt_tests_firmware qlt)
endif()
if(TARGET qlt_tests_firmware)
  # The firmware fuzzer's body, replayed over its corpus.
  target_sources(qlt_tests_firmware PRIVATE ${PROJECT_SOURCE_DIR}/fuzz/firmware_input.c)
  target_compile_definitions(qlt_tests_firmware PRIVATE
    QLT_FW_FUZZ_CORPUS="${PROJECT_SOURCE_DIR}/fuzz/corpus/firmware")
endif()

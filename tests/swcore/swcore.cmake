# The core linked from a plain C program, compiled as C99 with warnings as errors.
add_executable(qlt_swcore_from_c ${CMAKE_CURRENT_LIST_DIR}/CoreFromC.c)
set_target_properties(qlt_swcore_from_c PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON
                                                   C_EXTENSIONS OFF)
target_compile_options(qlt_swcore_from_c PRIVATE -Werror)
target_link_libraries(qlt_swcore_from_c PRIVATE qlt_swcore)
add_test(NAME SwCore.LinksFromPlainC COMMAND qlt_swcore_from_c)
set_tests_properties(SwCore.LinksFromPlainC PROPERTIES LABELS swcore TIMEOUT 60)
# The classic core alone, as a firmware that leaves the wide window out builds it: it must
# link without the wide window's sources and refuse a wide role.
add_executable(qlt_swcore_classic_from_c ${CMAKE_CURRENT_LIST_DIR}/CoreFromC.c
                                         ${PROJECT_SOURCE_DIR}/swcore/qlt_sw.c)
set_target_properties(qlt_swcore_classic_from_c PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON
                                                           C_EXTENSIONS OFF)
target_compile_options(qlt_swcore_classic_from_c PRIVATE -Werror -Wall -Wextra -Wpedantic)
target_compile_definitions(qlt_swcore_classic_from_c PRIVATE QLT_SW_WIDE=0 QLT_SW_COUNTER_BITS=32)
target_include_directories(qlt_swcore_classic_from_c PRIVATE ${PROJECT_SOURCE_DIR})
add_test(NAME SwCore.ClassicAloneFromPlainC COMMAND qlt_swcore_classic_from_c)
set_tests_properties(SwCore.ClassicAloneFromPlainC PROPERTIES LABELS swcore TIMEOUT 60)

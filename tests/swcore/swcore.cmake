# The core linked from a plain C program, compiled as C99 with warnings as errors.
add_executable(qlt_swcore_from_c ${CMAKE_CURRENT_LIST_DIR}/CoreFromC.c)
set_target_properties(qlt_swcore_from_c PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON
                                                   C_EXTENSIONS OFF)
target_compile_options(qlt_swcore_from_c PRIVATE -Werror)
target_link_libraries(qlt_swcore_from_c PRIVATE qlt_swcore)
add_test(NAME SwCore.LinksFromPlainC COMMAND qlt_swcore_from_c)
set_tests_properties(SwCore.LinksFromPlainC PROPERTIES LABELS swcore TIMEOUT 60)

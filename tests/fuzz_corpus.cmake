# The transports' unit tests replay the fuzz corpus through the fuzzers' entry functions.
if(TARGET qlt_tests_transports)
  target_compile_definitions(qlt_tests_transports PRIVATE
    QLT_FUZZ_CORPUS_DIR="${PROJECT_SOURCE_DIR}/fuzz/corpus")
endif()

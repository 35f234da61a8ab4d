# The Python package's tests (pytest), on the simulated radio. Not under the sanitizers:
# the interpreter is not built with them.
if(TARGET quelt_native AND NOT QLT_SANITIZE)
  add_test(NAME python.quelt
    COMMAND ${QLT_PYTHON_EXECUTABLE} -m pytest -q -p no:cacheprovider ${CMAKE_CURRENT_SOURCE_DIR}/python)
  set_tests_properties(python.quelt PROPERTIES LABELS "python" TIMEOUT 300
    ENVIRONMENT "PYTHONPATH=${QLT_PYTHON_BUILD_DIR};QLT_PLATFORM=sim")
endif()

# Registers a Python test file with ctest, as one test of that name.
#
#   add_pytest(NAME FILE [PYTEST OPTION...] [RUNNER COMMAND...])
#
# RUNNER is a command that runs pytest, such as one that enters namespaces first.
# The file finds the build tree as BUILD_DIR and the source tree as SOURCE_DIR in the
# environment, and can import the modules of tests/support. It runs on Debian's Python,
# by its full path: Debian's packages install their modules for that one only. A session
# that pytest.exit ends with status 77 counts as skipped.
function(add_pytest name file)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" RUNNER)
  add_test(NAME ${name}
           COMMAND ${arg_RUNNER} /usr/bin/python3 -m pytest --quiet -rs -p no:cacheprovider
                   --confcutdir=${PROJECT_SOURCE_DIR}
                   ${arg_UNPARSED_ARGUMENTS}
                   ${CMAKE_CURRENT_SOURCE_DIR}/${file})
  set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 ENVIRONMENT
    "BUILD_DIR=${CMAKE_BINARY_DIR};SOURCE_DIR=${PROJECT_SOURCE_DIR};PYTHONPATH=${PROJECT_SOURCE_DIR}/tests/support;PYTHONDONTWRITEBYTECODE=1")
  # Only ctest runs programs of another processor, through its emulator.
  set_tests_properties(${name} PROPERTIES DISABLED "${CMAKE_CROSSCOMPILING}")
endfunction()

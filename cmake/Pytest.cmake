# Registers a Python test file with ctest, as one test of that name.
#
#   add_pytest(NAME FILE [PYTEST OPTION...])
#
# The file finds the build tree as BUILD_DIR, the source tree as SOURCE_DIR (both in
# the environment), and can import the modules of tests/support. Debian's Python by
# its full path, since its packages of modules are for that one alone.
function(add_pytest name file)
  add_test(NAME ${name}
           COMMAND /usr/bin/python3 -m pytest --quiet -rs -p no:cacheprovider ${ARGN}
                   ${CMAKE_CURRENT_SOURCE_DIR}/${file})
  set_tests_properties(${name} PROPERTIES ENVIRONMENT
    "BUILD_DIR=${CMAKE_BINARY_DIR};SOURCE_DIR=${PROJECT_SOURCE_DIR};PYTHONPATH=${PROJECT_SOURCE_DIR}/tests/support;PYTHONDONTWRITEBYTECODE=1")
endfunction()

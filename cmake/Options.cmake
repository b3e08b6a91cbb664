# What all builds share: language standard, warnings, hardening.

option(ADAGENTD_TESTS "Build the tests" ON)
option(ADAGENTD_BENCH "Build the benchmarks" OFF)
option(ADAGENTD_WERROR "Treat warnings as errors" OFF)
option(ADAGENTD_SANITIZE "Build with Address- and UndefinedBehaviorSanitizer" OFF)
option(ADAGENTD_COVERAGE "Count executed lines; see ./test --coverage" OFF)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

include(CheckPIESupported)
check_pie_supported()

# All programs and libraries in one place, where devices and users find them.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

# File sizes and times of 64 bits, on 32-bit processors too.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

add_compile_options(-Wall -Wextra -Wshadow -Wnull-dereference -Wformat=2)
if(ADAGENTD_WERROR)
  add_compile_options(-Werror)
endif()

if(ADAGENTD_SANITIZE)
  add_compile_options(-O1 -g -fno-omit-frame-pointer -fsanitize=address,undefined
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
elseif(ADAGENTD_COVERAGE)
  # Atomic: threads share the counters, and forked processes add to the same files.
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage -Wl,--wrap=_exit,--undefined=__wrap__exit)
  add_library(coverage-exit STATIC ${CMAKE_SOURCE_DIR}/tests/support/coverage_exit.c)
  link_libraries(coverage-exit)
else()
  # For size: the daemon and its libraries are idle most of the time, and then cost a
  # small device nothing but their pages.
  set(CMAKE_C_FLAGS_RELEASE "-Os -DNDEBUG")
  set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG")
  add_compile_options(-U_FORTIFY_SOURCE "$<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>"
                      -fstack-protector-strong -ffunction-sections -fdata-sections)
  add_link_options(-Wl,--as-needed -Wl,--gc-sections -Wl,-z,relro)
endif()

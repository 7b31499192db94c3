# Compiler settings shared by every target: link against wharfy::options.
add_library(wharfy_options INTERFACE)
add_library(wharfy::options ALIAS wharfy_options)

target_compile_options(wharfy_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  -Wcast-qual -Wformat=2 -Wimplicit-fallthrough)
if(WHARFY_WERROR)
  target_compile_options(wharfy_options INTERFACE -Werror)
endif()
if(WHARFY_SANITIZE)
  target_compile_options(wharfy_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(wharfy_options INTERFACE -fsanitize=address,undefined)
endif()

# Test code is compiled without optimisation and over one precompiled
# header (GoogleTest and the common standard headers): that halves its compile
# time, while what the tests exercise, the libraries, keeps the build's flags.
# wharfy_test_pch owns the header; every test target reuses it, so they all
# share its flags, and -Winvalid-pch makes a mismatch an error, not a slowdown.
function(wharfy_test_flags target)
  target_compile_options(${target} PRIVATE -O0 -Winvalid-pch)
  target_link_libraries(${target} PRIVATE wharfy::options)
endfunction()

# wharfy_test(NAME <name> SOURCES ... LIBS ... [LABEL unit|integration])
# One gtest executable per test folder; tests are discovered so that ctest
# can run them in parallel and report each by name.
function(wharfy_test)
  cmake_parse_arguments(T "" "NAME;LABEL" "SOURCES;LIBS" ${ARGN})
  if(NOT T_LABEL)
    set(T_LABEL unit)
  endif()
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} wharfy_test_support GTest::gmock GTest::gtest_main)
  wharfy_test_flags(${T_NAME})
  target_precompile_headers(${T_NAME} REUSE_FROM wharfy_test_pch)
  gtest_discover_tests(${T_NAME}
    PROPERTIES LABELS ${T_LABEL}
    DISCOVERY_TIMEOUT 60)
endfunction()

# Shared compile settings and the one place that declares test targets.

add_library(quelm_options INTERFACE)
target_compile_options(quelm_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    -Wno-sign-conversion $<$<BOOL:${QUELM_WERROR}>:-Werror>)
# GCC 12 at -O3 reports std::string concatenation as overlapping copies (GCC bug 105329).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(quelm_options INTERFACE -Wno-restrict)
endif()
if(QUELM_SANITIZE)
    target_compile_options(quelm_options INTERFACE -fsanitize=address,undefined
        -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(quelm_options INTERFACE -fsanitize=address,undefined)
endif()

# quelm_add_test(NAME SOURCES...): one GoogleTest program, its cases registered with CTest.
function(quelm_add_test name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE quelm_core quelm_test_support GTest::gtest_main
        GTest::gmock quelm_options)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST)
endfunction()

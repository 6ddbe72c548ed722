# Shared compile settings and the one place that declares test targets.

add_library(quelm_options INTERFACE)
target_compile_options(quelm_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    -Wno-sign-conversion $<$<BOOL:${QUELM_WERROR}>:-Werror>)
# GCC 12 at -O3 wrongly reports std::string concatenation as overlapping copies and the
# storage of std::variant alternatives as maybe uninitialized.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(quelm_options INTERFACE -Wno-restrict -Wno-maybe-uninitialized)
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
    # Discovery runs when the tests do, on a machine that may be busy: its limit is a guard.
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 300)
endfunction()

# quelm_add_qt_test(NAME SOURCES...): one QtTest program over quelm_gui, registered with CTest.
# It runs offscreen with a home of its own, so that QSettings never touch the user's files.
function(quelm_add_qt_test name)
    add_executable(${name} ${ARGN})
    set_target_properties(${name} PROPERTIES AUTOMOC ON)
    target_link_libraries(${name} PRIVATE quelm_gui quelm_test_support Qt6::Test quelm_options)
    set(home ${CMAKE_CURRENT_BINARY_DIR}/${name}.home)
    file(MAKE_DIRECTORY ${home}/runtime)
    file(CHMOD ${home}/runtime PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 900 ENVIRONMENT
        "QT_QPA_PLATFORM=offscreen;HOME=${home};XDG_CONFIG_HOME=${home}/.config;XDG_DATA_HOME=${home}/.local/share;XDG_RUNTIME_DIR=${home}/runtime")
endfunction()

# One function per kind of target; every target's language level and warnings come from here.
include_guard()
find_package(Threads REQUIRED)

set(VELAHOST_TEST_TIMEOUT "" CACHE STRING "Seconds that a test may take, whatever it asks for")

set(VELAHOST_WARNINGS
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Werror)

function(velahost_configure_target target)
    target_compile_features(${target} PUBLIC cxx_std_17)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
    target_compile_options(${target} PRIVATE ${VELAHOST_WARNINGS})
    # What is shipped doesn't tell where it was built.
    target_compile_options(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:
        -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.
        -ffile-prefix-map=${PROJECT_BINARY_DIR}=build>)
    if(VELAHOST_SANITIZE)
        target_compile_options(${target} PRIVATE
            -fsanitize=${VELAHOST_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=${VELAHOST_SANITIZE})
    endif()
    if(VELAHOST_COVERAGE)
        target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
        target_link_options(${target} PRIVATE --coverage)
    endif()
endfunction()

# velahost_example(NAME SOURCE...): a program that a reader may copy.
function(velahost_example name)
    add_executable(${name} ${ARGN})
    velahost_configure_target(${name})
    target_link_libraries(${name} PRIVATE velahost Threads::Threads)
endfunction()

# Optimising test code takes longer than running it.
function(velahost_build_quickly target)
    target_compile_options(${target} PRIVATE $<$<CONFIG:Debug>:-O0>)
endfunction()

# velahost_test(NAME SOURCE... [TIMEOUT SECONDS]): a GoogleTest program whose tests ctest runs one
# process each.
function(velahost_test name)
    cmake_parse_arguments(PARSE_ARGV 1 test "" "TIMEOUT" "")
    if(VELAHOST_TEST_TIMEOUT)
        set(test_TIMEOUT ${VELAHOST_TEST_TIMEOUT})
    elseif(NOT test_TIMEOUT)
        set(test_TIMEOUT 120)
    endif()
    add_executable(${name} ${test_UNPARSED_ARGUMENTS})
    velahost_configure_target(${name})
    velahost_build_quickly(${name})
    target_precompile_headers(${name} REUSE_FROM velahost_test_headers)
    target_link_libraries(${name} PRIVATE velahost velahost_test_support GTest::gmock_main)
    gtest_discover_tests(${name}
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${test_TIMEOUT})
endfunction()

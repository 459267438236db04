# Build types beyond CMake's own:
#   Checked  - optimised, assertions on (the main test build)
#   Sanitize - AddressSanitizer and UndefinedBehaviorSanitizer, assertions on
set(CMAKE_CXX_FLAGS_CHECKED "-O2 -g1" CACHE STRING "Optimised with assertions" FORCE)
set(CMAKE_CXX_FLAGS_SANITIZE
    "-O1 -g -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=all"
    CACHE STRING "ASan and UBSan" FORCE)
set(CMAKE_EXE_LINKER_FLAGS_SANITIZE "-fsanitize=address,undefined" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_SANITIZE "-fsanitize=address,undefined" CACHE STRING "" FORCE)
set(CMAKE_EXE_LINKER_FLAGS_CHECKED "" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_CHECKED "" CACHE STRING "" FORCE)

# One interface target carries the warning flags for every target of the project.
add_library(velmorin_warnings INTERFACE)
target_compile_options(velmorin_warnings INTERFACE -Wall -Wextra)
if(VELMORIN_WERROR)
    target_compile_options(velmorin_warnings INTERFACE -Werror)
endif()

# velmorin_test(name SOURCES...): a GoogleTest binary registered with CTest, one CTest entry per test.
function(velmorin_test name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE velmorin_core velmorin_warnings GTest::gtest GTest::gtest_main)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# velmorin_layer_test(name LAYER SOURCES...): a GoogleTest binary that links one engine layer (and
# what is below it) instead of the whole engine, so that it fails to link if the layer reaches up.
function(velmorin_layer_test name layer)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE velmorin_${layer} velmorin_warnings GTest::gtest GTest::gtest_main)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# velmorin_fuzzer(name SOURCE): a libFuzzer target linked with the core library.
function(velmorin_fuzzer name source)
    add_executable(${name} ${source})
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_libraries(${name} PRIVATE velmorin_core velmorin_warnings)
endfunction()

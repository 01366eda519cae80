# Shared build settings and the helpers every CMakeLists in the tree uses.

if(SKIFF_SANITIZE)
    string(REPLACE "," ";" _skiff_sanitizers "${SKIFF_SANITIZE}")
    foreach(_s IN LISTS _skiff_sanitizers)
        add_compile_options(-fsanitize=${_s})
        add_link_options(-fsanitize=${_s})
    endforeach()
    add_compile_options(-fno-omit-frame-pointer -fno-sanitize-recover=all)
endif()

if(SKIFF_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "SKIFF_FUZZ needs clang (-DCMAKE_CXX_COMPILER=clang++)")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()

# Every asio setting lives here and applies to the whole tree: asio is header-only, so
# translation units built with different settings would disagree about its types.
#
# asio decides between aligned_alloc and operator new by whether a libstdc++ header came
# before it, so translation units that include <asio.hpp> first and those that do not would
# free each other's recycled coroutine frames with the wrong function. One choice for all.
add_compile_definitions(ASIO_DISABLE_STD_ALIGNED_ALLOC)
# Only the current interface: a deprecated call fails to compile instead of lingering.
add_compile_definitions(ASIO_NO_DEPRECATED)

# asio coroutines with both compilers.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # asio 1.22 looks only for libc++'s <experimental/coroutine> under clang;
    # libstdc++'s <coroutine> works.
    add_compile_definitions(ASIO_HAS_CO_AWAIT=1 ASIO_HAS_STD_COROUTINE=1)
    # clang 14 cannot emit UBSan's function-type check for coroutine frames.
    add_compile_options(-fno-sanitize=function)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND SKIFF_SANITIZE MATCHES "thread")
    # GCC warns that ThreadSanitizer cannot see asio's std::atomic_thread_fence.
    add_compile_options(-Wno-tsan)
endif()

# Warnings as errors on our own code only.
function(skiff_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# skiff_library(name SOURCES ... LIBS ...): a static library whose headers are
# included as "<subsystem>/file.hpp" from src/.
function(skiff_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${ARG_LIBS})
    skiff_warnings(${name})
endfunction()

# skiff_test(name SOURCES ... LIBS ... [LABELS ...]): a GoogleTest binary whose
# cases are registered with CTest. Label "concurrent" puts it in the ThreadSanitizer run.
function(skiff_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
    # Every test binary carries the ThreadSanitizer suppressions of what libstdc++ hides.
    add_executable(${name} ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/tests/common/tsan_suppressions.cpp)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
    skiff_warnings(${name})
    set(_props TIMEOUT 240 ENVIRONMENT "SKIFF_BUILD_DIR=${PROJECT_BINARY_DIR}")
    if(ARG_LABELS)
        list(APPEND _props LABELS "${ARG_LABELS}")
    endif()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES ${_props})
endfunction()

# skiff_fuzzer(name SOURCES ... LIBS ...): a libFuzzer target, run briefly by CTest
# (label "fuzz") from its seed corpus in fuzz/corpus/<name> when there is one.
function(skiff_fuzzer name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
    skiff_warnings(${name})
    set(_work ${CMAKE_CURRENT_BINARY_DIR}/corpus-${name})
    set(_seed "")
    if(EXISTS ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
        set(_seed "'${PROJECT_SOURCE_DIR}/fuzz/corpus/${name}'")
    endif()
    add_test(NAME ${name}
        COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=1
            sh -c "mkdir -p '${_work}' && exec \"$0\" -max_total_time=20 -timeout=5 -rss_limit_mb=2048 -max_len=65536 '${_work}' ${_seed}"
            $<TARGET_FILE:${name}>)
    set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 120)
endfunction()

# Adds every sub-folder of the current folder that has a CMakeLists.txt, in name order:
# tests/, fuzz/ and bench/ keep one folder per subsystem.
function(skiff_add_area_folders)
    file(GLOB _areas LIST_DIRECTORIES true RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}
        ${CMAKE_CURRENT_SOURCE_DIR}/*)
    list(SORT _areas)
    foreach(_area IN LISTS _areas)
        if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${_area}/CMakeLists.txt)
            add_subdirectory(${_area})
        endif()
    endforeach()
endfunction()

# The four kinds of target in this project. Sources listed behind WIN32 belong to Windows builds only;
# everything else is platform-neutral and is also built natively, for sanitizers and fuzzing.

add_library(rl_flags INTERFACE)
target_compile_features(rl_flags INTERFACE cxx_std_20)
target_include_directories(rl_flags INTERFACE ${PROJECT_SOURCE_DIR}/lib ${PROJECT_SOURCE_DIR}/toolbox/windows
  ${PROJECT_SOURCE_DIR}/apps ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
target_compile_options(rl_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX,C>:-Wall;-Wextra;-Wshadow;-Wconversion;-Wno-sign-conversion;-Wcast-align;-Wformat=2;-Wno-format-nonliteral;-Werror>
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor;-Woverloaded-virtual>)
if(WIN32)
  # Windows XP x64 and Server 2003 are the oldest guests; newer entry points are looked up at run time.
  target_compile_definitions(rl_flags INTERFACE UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX
    _WIN32_WINNT=0x0502 WINVER=0x0502)
endif()
if(RL_CHECKED)
  target_compile_definitions(rl_flags INTERFACE _GLIBCXX_ASSERTIONS)
  if(WIN32)
    target_compile_options(rl_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fsanitize=undefined;-fsanitize-undefined-trap-on-error>)
  endif()
endif()

# rl_library(name [SOURCES ...] [WIN32 ...] [LINKS ...] [SYSTEM ...])
function(rl_library name)
  cmake_parse_arguments(A "" "" "SOURCES;WIN32;LINKS;SYSTEM" ${ARGN})
  set(sources ${A_SOURCES})
  if(WIN32)
    list(APPEND sources ${A_WIN32})
  endif()
  if(sources)
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PRIVATE rl_flags PUBLIC ${A_LINKS})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/lib)
    if(WIN32)
      target_link_libraries(${name} PUBLIC ${A_SYSTEM})
    endif()
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE ${A_LINKS})
    if(WIN32)
      target_link_libraries(${name} INTERFACE ${A_SYSTEM})
    endif()
  endif()
endfunction()

# rl_test(name [SOURCES ...] [LINKS ...] [WINDOWS_ONLY]): one GoogleTest program, test_<name>.
function(rl_test name)
  cmake_parse_arguments(A "WINDOWS_ONLY" "" "SOURCES;LINKS" ${ARGN})
  if(NOT RL_TESTS OR (A_WINDOWS_ONLY AND NOT WIN32))
    return()
  endif()
  add_executable(test_${name} ${A_SOURCES})
  target_link_libraries(test_${name} PRIVATE rl_flags ${A_LINKS} test_support GTest::gmock GTest::gtest_main)
  set_target_properties(test_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
endfunction()

# rl_fuzz(name [SOURCES ...] [LINKS ...]): one libFuzzer program, fuzz_<name>; seeds live in fuzz/corpus/<name>.
function(rl_fuzz name)
  cmake_parse_arguments(A "" "" "SOURCES;LINKS" ${ARGN})
  if(NOT RL_FUZZ)
    return()
  endif()
  add_executable(fuzz_${name} ${A_SOURCES})
  target_link_libraries(fuzz_${name} PRIVATE rl_flags ${A_LINKS} test_support)
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  set_target_properties(fuzz_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
endfunction()

# rl_bench(name [SOURCES ...] [LINKS ...]): one program for ./bench, bench_<name>; scripts/run-bench.py says what it
# has to write.
function(rl_bench name)
  cmake_parse_arguments(A "" "" "SOURCES;LINKS" ${ARGN})
  if(NOT RL_BENCH)
    return()
  endif()
  add_executable(bench_${name} ${A_SOURCES})
  target_link_libraries(bench_${name} PRIVATE rl_flags test_support ${A_LINKS})
  set_target_properties(bench_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
endfunction()

# Flags for our own targets. Warnings are errors in our code only.
add_library(kelvo_flags INTERFACE)
add_library(kelvo::flags ALIAS kelvo_flags)
target_compile_options(kelvo_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wno-missing-field-initializers
  $<$<BOOL:${KELVO_WARNINGS_AS_ERRORS}>:-Werror>)

# How a module's sources compile: against the SDK and the module's own source/ folder only,
# so a module never sees the host's headers or another module's (tests/boundaries checks it).
function(kelvo_module_compile_settings target source_dir)
  target_link_libraries(${target} PUBLIC kelvo::sdk PRIVATE kelvo::flags)
  target_include_directories(${target} PRIVATE ${source_dir})
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden
                                             VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# A module: an OBJECT library of its sources (linked whole into unit tests, so no static
# initialiser is dropped) and the shared library that exports only the binding record.
# <name>_whitebox is what the module's tests, benchmarks and fuzzers link: the module's code
# (its objects, or the library named by WHITEBOX), the host to run it, and its private headers
# included from its source/ folder ("implementation/ies_impl.h").
function(kelvo_add_module name)
  cmake_parse_arguments(ARG "" "FOLDER;OUTPUT_NAME;WHITEBOX" "SOURCES" ${ARGN})
  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  kelvo_module_compile_settings(${name}_objects ${CMAKE_CURRENT_SOURCE_DIR}/source)
  add_library(${name} MODULE $<TARGET_OBJECTS:${name}_objects>)
  target_link_libraries(${name} PRIVATE kelvo::sdk)
  set_target_properties(${name} PROPERTIES
    PREFIX "" OUTPUT_NAME ${ARG_OUTPUT_NAME}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/modules/${ARG_FOLDER}
    LINK_DEPENDS ${KELVO_EXPORT_MAP})
  # clang's sanitizer runtimes live in the executable, so a sanitized module has undefined
  # symbols by design there.
  target_link_options(${name} PRIVATE -Wl,--version-script=${KELVO_EXPORT_MAP}
    $<$<NOT:$<AND:$<CXX_COMPILER_ID:Clang>,$<CONFIG:Asan,Tsan>>>:-Wl,--no-undefined>)
  install(TARGETS ${name} LIBRARY DESTINATION lib/kelvo/modules/${ARG_FOLDER})
  add_library(${name}_whitebox INTERFACE)
  target_include_directories(${name}_whitebox INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/source)
  if(ARG_WHITEBOX)
    target_link_libraries(${name}_whitebox INTERFACE ${ARG_WHITEBOX} kelvo::host)
  else()
    # An object library named in an interface passes on its usage requirements only, so
    # its objects are handed on as sources.
    target_sources(${name}_whitebox INTERFACE $<TARGET_OBJECTS:${name}_objects>)
    target_link_libraries(${name}_whitebox INTERFACE ${name}_objects kelvo::host)
  endif()
endfunction()
set(KELVO_EXPORT_MAP ${CMAKE_SOURCE_DIR}/cmake/module_exports.map)

# The shared developer data (real IES files ...) lies beside the checkout; a git worktree
# one folder further down finds it one level higher. Tests skip what is absent.
if(EXISTS ${CMAKE_SOURCE_DIR}/../shared OR NOT EXISTS ${CMAKE_SOURCE_DIR}/../../shared)
  set(KELVO_SHARED_DIR ${CMAKE_SOURCE_DIR}/../shared)
else()
  set(KELVO_SHARED_DIR ${CMAKE_SOURCE_DIR}/../../shared)
endif()

# A GoogleTest executable, registered with ctest. LABELS heavy marks statistical suites
# that the sanitizer runs skip (they test numbers, not memory or threads).
function(kelvo_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} kelvo::flags GTest::gtest GTest::gmock)
  target_compile_definitions(${name} PRIVATE
    KELVO_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    KELVO_SHARED_DIR="${KELVO_SHARED_DIR}")
  if(NOT ARG_LABELS)
    set(ARG_LABELS unit)
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 600 LABELS "${ARG_LABELS}")
endfunction()

# A Google Benchmark program. ATTACH gives it the shared main (bench/bench_main.cpp), which
# attaches the module the program links, as the tests' main does, before the program's SetUp.
function(kelvo_add_benchmark name)
  cmake_parse_arguments(ARG "ATTACH" "" "SOURCES;LIBS" ${ARGN})
  if(ARG_ATTACH)
    list(APPEND ARG_SOURCES ${CMAKE_SOURCE_DIR}/bench/bench_main.cpp)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} kelvo::flags benchmark::benchmark)
endfunction()

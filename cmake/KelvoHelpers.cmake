# Flags for our own targets. Warnings are errors in our code only.
add_library(kelvo_flags INTERFACE)
add_library(kelvo::flags ALIAS kelvo_flags)
target_compile_options(kelvo_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wno-missing-field-initializers
  $<$<BOOL:${KELVO_WARNINGS_AS_ERRORS}>:-Werror>)

# A module: an OBJECT library of its sources (linked whole into unit tests, so no static
# initialiser is dropped) and the shared library that exports only the binding record.
function(kelvo_add_module name)
  cmake_parse_arguments(ARG "" "FOLDER;OUTPUT_NAME" "SOURCES" ${ARGN})
  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  target_link_libraries(${name}_objects PUBLIC kelvo::sdk PRIVATE kelvo::flags)
  set_target_properties(${name}_objects PROPERTIES CXX_VISIBILITY_PRESET hidden
                                                   VISIBILITY_INLINES_HIDDEN ON)
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

function(kelvo_add_benchmark name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} kelvo::flags benchmark::benchmark)
endfunction()

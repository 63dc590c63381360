# Tests of the launcher, the report tool and the installed package, all
# labelled "tools". Included from tools/CMakeLists.txt.
set(tools_tests ${PROJECT_SOURCE_DIR}/tests/tools)

# GoogleTest: the imported targets of the tests directory are not visible
# here, so look again; the fallback build from sources defines global ones.
if(NOT TARGET GTest::gtest_main)
  find_package(GTest QUIET)
endif()
if(TARGET GTest::gtest_main)
  set(tools_gtest GTest::gtest_main)
else()
  set(tools_gtest gtest_main)
endif()

add_executable(tarvex_tools_tests
  ${tools_tests}/frame_line_test.cpp
  ${tools_tests}/log_parser_test.cpp
  ${tools_tests}/text_helpers_test.cpp)
target_link_libraries(tarvex_tools_tests PRIVATE tarvex_report_core ${tools_gtest} dl)
add_test(NAME tools.report_units COMMAND tarvex_tools_tests)

# The sample program, in four builds: with and without debug information,
# position-independent and fixed-address, and one stripped of its symbols.
# Frame pointers and no sibling calls keep every frame on the stack.
add_library(tvx_tools_sample_helper SHARED ${tools_tests}/sample/sample_helper.cpp)
target_compile_options(tvx_tools_sample_helper PRIVATE -O1 -g -fno-omit-frame-pointer)
set_target_properties(tvx_tools_sample_helper PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/samples)
function(tvx_tools_sample name)
  cmake_parse_arguments(arg "NODEBUG;NOPIE;STRIP" "" "" ${ARGN})
  add_executable(${name} ${tools_tests}/sample/sample.cpp)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/include ${tools_tests}/sample)
  target_link_libraries(${name} PRIVATE tvx_tools_sample_helper)
  target_compile_options(${name} PRIVATE -O1 -fno-omit-frame-pointer -fno-optimize-sibling-calls
                         $<IF:$<BOOL:${arg_NODEBUG}>,-g0,-g>)
  if(arg_NOPIE)
    # In a fixed-address executable the linker resolves an undefined weak
    # reference to null, so the control functions bind only when the
    # program links the library.
    target_compile_options(${name} PRIVATE -fno-pie)
    target_link_options(${name} PRIVATE -no-pie)
    target_link_libraries(${name} PRIVATE tarvex)
  else()
    target_compile_options(${name} PRIVATE -fPIE)
    target_link_options(${name} PRIVATE -pie)
  endif()
  if(arg_STRIP)
    target_link_options(${name} PRIVATE -s)
  endif()
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/samples
    BUILD_RPATH "${CMAKE_CURRENT_BINARY_DIR}/samples;${CMAKE_BINARY_DIR}/lib")
endfunction()
tvx_tools_sample(tools_sample_debug_pie)
tvx_tools_sample(tools_sample_debug_nopie NOPIE)
tvx_tools_sample(tools_sample_nodebug_pie NODEBUG)
tvx_tools_sample(tools_sample_stripped_nopie NODEBUG NOPIE STRIP)

set(samples_dir ${CMAKE_CURRENT_BINARY_DIR}/samples)
add_test(NAME tools.launcher
  COMMAND bash ${tools_tests}/launcher_test.sh ${TARVEX_TOOLS_BIN_DIR} ${samples_dir})
add_test(NAME tools.report_runs
  COMMAND bash ${tools_tests}/report_runs_test.sh ${TARVEX_TOOLS_BIN_DIR} ${samples_dir}
          ${tools_tests}/sample)
add_test(NAME tools.html_browser
  COMMAND bash ${tools_tests}/html_browser_test.sh ${TARVEX_TOOLS_BIN_DIR} ${samples_dir}
          ${tools_tests}/data)
add_test(NAME tools.install
  COMMAND bash ${tools_tests}/install_test.sh ${CMAKE_BINARY_DIR} ${tools_tests}/installed)
# The unit tests of the report tool also run in the sanitizer builds.
set_tests_properties(tools.report_units PROPERTIES LABELS "tools;unit")
set_tests_properties(tools.launcher tools.report_runs tools.html_browser tools.install
                     PROPERTIES LABELS tools)
# Without chromium the browser test reports itself skipped.
set_tests_properties(tools.html_browser PROPERTIES SKIP_RETURN_CODE 77)

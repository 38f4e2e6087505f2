# kyheap, the heap profiler of tools/kyheap.
#
# The report reader is pure logic and runs in every build. The runs of
# programs under the tool preload an interposer of malloc, which does not
# mix with the sanitizers' runtimes: they are left out of sanitizer builds
# (where the tool is not built either).
if(TARGET kyheap_report)
  kyrt_add_gtest(kyheap_report_test SOURCES kyheap_report_test.cpp)
  target_link_libraries(kyheap_report_test PRIVATE kyheap_report)
endif()

if(TARGET kyheap AND TARGET heap_workload AND TARGET kyrtctl AND NOT KYRT_SANITIZE)
  find_package(LibXml2 REQUIRED)
  kyrt_add_gtest(kyheap_run_test CONCURRENCY SOURCES
    kyheap_totals_test.cpp kyheap_programs_test.cpp kyheap_commands_test.cpp)
  target_link_libraries(kyheap_run_test PRIVATE kyheap_report LibXml2::LibXml2)
  add_dependencies(kyheap_run_test kyheap kyheap_tool heap_workload kyrtctl)
  target_compile_definitions(kyheap_run_test PRIVATE
    KYHEAP_TEST_LAUNCHER="$<TARGET_FILE:kyheap>"
    KYHEAP_TEST_WORKLOAD="$<TARGET_FILE:heap_workload>"
    KYHEAP_TEST_KYRTCTL="$<TARGET_FILE:kyrtctl>")

  # The tool built out of tree against an installed KYRT, with CMake's
  # find_package(kyrt) and with pkg-config.
  add_test(NAME KyheapInstall.OutOfTreeBuildAgainstAnInstalledRuntime
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/kyheap_install_check.sh ${PROJECT_BINARY_DIR}
            ${PROJECT_SOURCE_DIR}/tools/kyheap $<TARGET_FILE:heap_workload>)
  set_tests_properties(KyheapInstall.OutOfTreeBuildAgainstAnInstalledRuntime PROPERTIES
    LABELS packaging TIMEOUT 300)
endif()

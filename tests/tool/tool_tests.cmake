# Command-level tests of krm-mbuf, driven by shell scripts; included from
# tools/krm-mbuf/CMakeLists.txt. tshark reads what the tool writes.
set(KRM_TOOL_TESTS ${PROJECT_SOURCE_DIR}/tests/tool)
find_program(KRM_TSHARK tshark)

add_test(NAME tool.cli
  COMMAND ${KRM_TOOL_TESTS}/tool_test.sh cli $<TARGET_FILE:krm-mbuf> ${CMAKE_CURRENT_BINARY_DIR})
file(GLOB KRM_INSPECT_INPUTS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/tests/golden/*.tlv ${PROJECT_SOURCE_DIR}/tests/golden/*.img
  ${KRM_TOOL_TESTS}/golden/*.pkg ${KRM_TOOL_TESTS}/golden/*.msg)
add_test(NAME tool.inspect_golden
  COMMAND ${KRM_TOOL_TESTS}/inspect_test.sh $<TARGET_FILE:krm-mbuf> ${KRM_TOOL_TESTS}/golden
  ${KRM_INSPECT_INPUTS})
# The longest test of a run: a high cost starts it first, beside the rest,
# instead of last and alone.
set_tests_properties(tool.inspect_golden PROPERTIES ENVIRONMENT "TZ=UTC" COST 1000)
if(KRM_TSHARK)
  foreach(case road capture tso)
    add_test(NAME tool.${case}
      COMMAND ${KRM_TOOL_TESTS}/tool_test.sh ${case} $<TARGET_FILE:krm-mbuf> ${CMAKE_CURRENT_BINARY_DIR})
  endforeach()
  set_tests_properties(tool.road tool.capture tool.tso PROPERTIES TIMEOUT 120)
endif()
# The package test builds the project a second time; it stays out of the
# sanitizer build.
if(NOT KRM_SANITIZE)
  add_test(NAME tool.package
    COMMAND ${KRM_TOOL_TESTS}/package_test.sh ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/pkgtest)
  set_tests_properties(tool.package PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE)
endif()

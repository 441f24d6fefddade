# Command-level tests of krm-mbuf, driven by shell scripts; included from
# tools/krm-mbuf/CMakeLists.txt. tshark reads what the tool writes.
set(KRM_TOOL_TESTS ${PROJECT_SOURCE_DIR}/tests/tool)
find_program(KRM_TSHARK tshark)

add_test(NAME tool.cli COMMAND ${KRM_TOOL_TESTS}/cli_test.sh $<TARGET_FILE:krm-mbuf>)
file(GLOB KRM_INSPECT_INPUTS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/tests/golden/*.tlv ${PROJECT_SOURCE_DIR}/tests/golden/*.img
  ${KRM_TOOL_TESTS}/golden/*.pkg ${KRM_TOOL_TESTS}/golden/*.msg)
add_test(NAME tool.inspect_golden
  COMMAND ${KRM_TOOL_TESTS}/inspect_test.sh $<TARGET_FILE:krm-mbuf> ${KRM_TOOL_TESTS}/golden
  ${KRM_INSPECT_INPUTS})
set_tests_properties(tool.inspect_golden PROPERTIES ENVIRONMENT "TZ=UTC")
if(KRM_TSHARK)
  add_test(NAME tool.road_capture
    COMMAND ${KRM_TOOL_TESTS}/road_test.sh $<TARGET_FILE:krm-mbuf> ${CMAKE_CURRENT_BINARY_DIR})
  add_test(NAME tool.capture
    COMMAND ${KRM_TOOL_TESTS}/capture_test.sh $<TARGET_FILE:krm-mbuf> ${CMAKE_CURRENT_BINARY_DIR})
  add_test(NAME tool.tso
    COMMAND ${KRM_TOOL_TESTS}/tso_test.sh $<TARGET_FILE:krm-mbuf> ${CMAKE_CURRENT_BINARY_DIR})
  set_tests_properties(tool.road_capture tool.capture tool.tso PROPERTIES TIMEOUT 120)
endif()
# The package test builds the project a second time; it stays out of the
# sanitizer build.
if(NOT KRM_SANITIZE)
  add_test(NAME tool.package
    COMMAND ${KRM_TOOL_TESTS}/package_test.sh ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/pkgtest)
  set_tests_properties(tool.package PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE)
endif()

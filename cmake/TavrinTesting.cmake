find_package(GTest REQUIRED)
include(GoogleTest)

# tavrin_add_test(<subsystem> <sources>...): one GoogleTest binary per subsystem, every test its own
# ctest process with a timeout, labelled with the subsystem so that `ctest -L <subsystem>` runs it alone.
function(tavrin_add_test subsystem)
  set(target tavrincommon_${subsystem}_test)
  add_executable(${target} ${ARGN})
  target_link_libraries(${target} PRIVATE tavrincommon tavrincommon_testing GTest::gmock GTest::gtest_main)
  tavrin_set_warnings(${target})
  gtest_discover_tests(${target}
    PROPERTIES LABELS ${subsystem} TIMEOUT 60
    DISCOVERY_TIMEOUT 60)
endfunction()

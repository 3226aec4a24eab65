# Cross-builds compile GoogleTest for the target from Debian's sources; native builds use the
# installed package.
set(TAVRIN_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources for cross-builds")
if(CMAKE_CROSSCOMPILING)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  add_subdirectory(${TAVRIN_GTEST_SOURCE_DIR} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  # GoogleTest's own build defines the GTest:: aliases; older versions do not.
  foreach(_gtest_target gtest gtest_main gmock)
    if(NOT TARGET GTest::${_gtest_target})
      add_library(GTest::${_gtest_target} ALIAS ${_gtest_target})
    endif()
  endforeach()
else()
  find_package(GTest REQUIRED)
endif()
include(GoogleTest)

# tavrin_add_test(<subsystem> <sources>...): one GoogleTest binary per subsystem, every test its own
# ctest process with a timeout, labelled with the subsystem so that `ctest -L <subsystem>` runs it alone.
function(tavrin_add_test subsystem)
  set(target tavrincommon_${subsystem}_test)
  add_executable(${target} ${ARGN})
  target_link_libraries(${target} PRIVATE tavrincommon tavrincommon_testing GTest::gmock GTest::gtest_main)
  tavrin_set_warnings(${target})
  gtest_discover_tests(${target}
    PROPERTIES LABELS ${subsystem} TIMEOUT 120
    DISCOVERY_TIMEOUT 120)
endfunction()

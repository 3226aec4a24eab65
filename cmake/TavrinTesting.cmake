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

# tavrin_set_emulation_environment(): in a cross-build whose tests run under
# CMAKE_CROSSCOMPILING_EMULATOR, every GoogleTest case of the project gets in its environment
# TAVRIN_UNDER_EMULATION (cases that cannot work under user-mode emulation skip) and
# TAVRIN_TARGET_EMULATOR (the command that runs a target program, for tests that re-run
# themselves), so that a plain `ctest` in the build directory passes without a preset. Call it once
# every test has been declared. The discovered cases exist only when ctest runs, so a script that
# ctest reads after each directory's discovered cases sets the property, as for a hand-written test.
function(tavrin_set_emulation_environment)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    return()
  endif()
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  list(GET CMAKE_CROSSCOMPILING_EMULATOR -1 program)
  get_filename_component(program "${program}" NAME)
  _tavrin_set_emulation_environment_in("${PROJECT_SOURCE_DIR}"
    "TAVRIN_UNDER_EMULATION=${program};TAVRIN_TARGET_EMULATOR=${emulator}")
endfunction()

function(_tavrin_set_emulation_environment_in dir environment)
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  set(script "")
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      # <target>_TESTS is the list that gtest_discover_tests' script defines for the target.
      string(APPEND script "if(DEFINED ${target}_TESTS)\n"
        "  set_tests_properties(\${${target}_TESTS} PROPERTIES ENVIRONMENT [==[${environment}]==])\n"
        "endif()\n")
    endif()
  endforeach()
  if(script)
    get_property(binary_dir DIRECTORY "${dir}" PROPERTY BINARY_DIR)
    set(file "${binary_dir}/tavrin_emulation_environment.cmake")
    file(WRITE "${file}" "${script}")
    set_property(DIRECTORY "${dir}" APPEND PROPERTY TEST_INCLUDE_FILES "${file}")
  endif()
  get_property(subdirs DIRECTORY "${dir}" PROPERTY SUBDIRECTORIES)
  foreach(subdir IN LISTS subdirs)
    cmake_path(IS_PREFIX PROJECT_SOURCE_DIR "${subdir}" inside)
    if(inside)
      _tavrin_set_emulation_environment_in("${subdir}" "${environment}")
    endif()
  endforeach()
endfunction()

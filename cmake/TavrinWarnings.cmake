# Warnings are set per target, never globally, so that consumers of the library keep their own flags.
function(tavrin_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wformat=2)
  # On 32-bit ARM, GCC notes every standard container iterator passed by value because its passing
  # changed in GCC 7.1; everything linked into a device is built with one toolchain, so the notes
  # only hide real diagnostics.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    target_compile_options(${target} PRIVATE -Wno-psabi)
  endif()
  if(TAVRIN_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

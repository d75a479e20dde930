# Tests that start shipped binaries on the simulated appliance.
#
#   add_appliance_tests(PROGRAM PREFIX SUITE...)
#
# PROGRAM is the test program. Each SUITE, the source SUITE_test.cpp, becomes the entry PREFIX + SUITE
# of ctest, so that a failure has an address.

# Its own folder, never /usr/include itself: that one holds another machine's headers when
# cross-compiling.
find_path(DOCTEST_INCLUDE_DIR doctest.h PATH_SUFFIXES doctest)
if(NOT DOCTEST_INCLUDE_DIR)
  message(STATUS "doctest.h not found (Debian's doctest-dev): the tests are not built")
endif()

# qemu-user does not know how a program adopts orphans: a small program of this machine does it.
if(CMAKE_CROSSCOMPILING)
  find_program(HOST_CC NAMES gcc cc REQUIRED)
  set(adopt_source ${CMAKE_CURRENT_LIST_DIR}/toolchains/adopt.c)
  set(adopt ${PROJECT_BINARY_DIR}/adopt)
  add_custom_command(OUTPUT ${adopt} DEPENDS ${adopt_source}
    COMMAND ${HOST_CC} -o ${adopt} ${adopt_source})
  add_custom_target(adopt_helper ALL DEPENDS ${adopt})
endif()

function(add_appliance_tests program prefix)
  target_include_directories(${program} SYSTEM PRIVATE ${DOCTEST_INCLUDE_DIR})
  target_link_libraries(${program} PRIVATE appliance appliance_layout appliance_program)
  # They are compiled in half the time, and run as fast.
  target_compile_options(${program} PRIVATE $<$<CONFIG:Release>:-Og>)
  # The tests start the binaries themselves, so they have to know what runs them.
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  if(CMAKE_CROSSCOMPILING)
    set_target_properties(${program} PROPERTIES
      CROSSCOMPILING_EMULATOR "${PROJECT_BINARY_DIR}/adopt;${CMAKE_CROSSCOMPILING_EMULATOR}")
  endif()
  # A test that is killed leaves its files in the build's folder.
  set(temporary ${CMAKE_CURRENT_BINARY_DIR}/temporary)
  file(MAKE_DIRECTORY ${temporary})
  foreach(suite ${ARGN})
    add_test(NAME ${prefix}${suite} COMMAND ${program} --source-file=*/${suite}_test.cpp)
    set_tests_properties(${prefix}${suite} PROPERTIES
      ENVIRONMENT "APPLIANCE_EMULATOR=${emulator};TMPDIR=${temporary}" TIMEOUT 120)
  endforeach()
endfunction()

# The few functions with which every folder of this tree becomes a target.

option(TORVA_WERROR "warnings are errors" OFF)
option(TORVA_TESTS_TOGETHER "a program of unit tests is one CTest test, not each of its tests" OFF)

add_library(torva_warnings INTERFACE)
add_library(torva::warnings ALIAS torva_warnings)
target_compile_options(torva_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Wnon-virtual-dtor
  $<$<BOOL:${TORVA_WERROR}>:-Werror>
  # Where the sources of a folder are compiled together, GCC takes each for a header.
  $<$<AND:$<BOOL:${CMAKE_UNITY_BUILD}>,$<CXX_COMPILER_ID:GNU>>:-Wno-subobject-linkage>)

# What the targets of a folder are called after.
function(torva_name_of variable folder)
  string(REGEX REPLACE "^torva/" "" name ${folder})
  string(REPLACE "/" "_" name ${name})
  set(${variable} ${name} PARENT_SCOPE)
endfunction()

# torva_library(FOLDER [DEPS target...] [PRIVATE_DEPS target...] [EXCLUDE file...]
#   [PUBLIC_HEADERS file...])
#
# Makes the static library torva_<folder> (slashes become underscores, a leading
# "torva/" is left out), alias torva::<folder>, from every *.cpp of FOLDER. DEPS are
# what its headers or sources include; PRIVATE_DEPS stay out of its headers.
# PUBLIC_HEADERS are what users of the library may include, see TorvaMail.cmake.
function(torva_library folder)
  cmake_parse_arguments(arg "" "" "DEPS;PRIVATE_DEPS;EXCLUDE;PUBLIC_HEADERS" ${ARGN})
  torva_name_of(name ${folder})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*.cpp)
  foreach(file IN LISTS arg_EXCLUDE)
    list(REMOVE_ITEM sources ${CMAKE_SOURCE_DIR}/${folder}/${file})
  endforeach()
  if(NOT sources)
    add_library(torva_${name} INTERFACE)
    add_library(torva::${name} ALIAS torva_${name})
    target_include_directories(torva_${name} INTERFACE ${CMAKE_SOURCE_DIR})
    target_link_libraries(torva_${name} INTERFACE ${arg_DEPS})
    return()
  endif()
  add_library(torva_${name} STATIC ${sources})
  add_library(torva::${name} ALIAS torva_${name})
  target_include_directories(torva_${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(torva_${name}
    PUBLIC ${arg_DEPS}
    PRIVATE torva::warnings ${arg_PRIVATE_DEPS})
  list(TRANSFORM arg_PUBLIC_HEADERS PREPEND ${CMAKE_SOURCE_DIR}/${folder}/)
  set_target_properties(torva_${name} PROPERTIES TORVA_PUBLIC_HEADERS "${arg_PUBLIC_HEADERS}")
endfunction()

# What test programs are compiled with on top of that: with optimization, GCC 12
# takes the buffer for small objects in Boost's function for uninitialized.
add_library(torva_test_warnings INTERFACE)
target_link_libraries(torva_test_warnings INTERFACE torva::warnings)
target_compile_options(torva_test_warnings INTERFACE
  $<$<CXX_COMPILER_ID:GNU>:-Wno-uninitialized -Wno-maybe-uninitialized>)

# How the sources of tests are compiled in every preset: what they test is built as it
# is installed, and they themselves take a third of the time without optimization.
add_library(torva_test_options INTERFACE)
target_link_libraries(torva_test_options INTERFACE torva_test_warnings)
# In the presets that compile the sources of a folder together, tests have no debugging
# information: a failed assertion names its own line. To debug a test, use preset dev.
target_compile_options(torva_test_options INTERFACE -O0 $<IF:$<BOOL:${CMAKE_UNITY_BUILD}>,-g0,-g1>)

# torva_test_headers(TARGET): reads the test framework's headers, which are most of the work of
# compiling a test, from their compiled form. Only where the sources of a folder are compiled
# together; elsewhere each source shows that it includes what it needs.
function(torva_test_headers target)
  if(CMAKE_UNITY_BUILD)
    target_precompile_headers(${target} REUSE_FROM torva_test_framework)
  endif()
endfunction()

# torva_tests(FOLDER [ALONE] [DEPS target...])
#
# From tests/FOLDER: every *Test.cpp goes into test_<folder>, each of its tests
# a CTest test of its own (with TORVA_TESTS_TOGETHER only where ALONE says so: tests
# that start hundreds of processes, which takes longer as the program grows); every
# *SandboxTest.cpp goes into sandbox_test_<folder>, which is run whole by
# scripts/sandbox in its private copy of the host, as the one CTest test
# sandbox.<folder>, and is skipped with its reason where the machine does not allow
# that. Outside the sandbox, none of them can start a program of Postfix
# (tests/support/PostfixGuard.h).
function(torva_tests folder)
  cmake_parse_arguments(arg "ALONE" "" "DEPS" ${ARGN})
  torva_name_of(name ${folder})
  set(dir ${CMAKE_SOURCE_DIR}/tests/${folder})
  file(GLOB sandboxed CONFIGURE_DEPENDS ${dir}/*SandboxTest.cpp)
  file(GLOB plain CONFIGURE_DEPENDS ${dir}/*Test.cpp)
  file(GLOB helpers CONFIGURE_DEPENDS ${dir}/*.cpp)
  list(REMOVE_ITEM helpers ${plain})
  if(sandboxed)
    list(REMOVE_ITEM plain ${sandboxed})
    add_executable(sandbox_test_${name} ${sandboxed} ${helpers})
    target_link_libraries(sandbox_test_${name}
      PRIVATE ${arg_DEPS} torva_test_support torva_test_guard torva_test_options GTest::gmock_main)
    torva_test_headers(sandbox_test_${name})
    target_include_directories(sandbox_test_${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
    target_compile_definitions(sandbox_test_${name}
      PRIVATE TORVA_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    add_test(NAME sandbox.${name}
      COMMAND ${CMAKE_SOURCE_DIR}/scripts/sandbox -- $<TARGET_FILE:sandbox_test_${name}>)
    set_tests_properties(sandbox.${name} PROPERTIES
      COST 90 SKIP_RETURN_CODE 77 LABELS sandbox TIMEOUT 600)
  endif()
  if(plain)
    add_executable(test_${name} ${plain} ${helpers})
    target_link_libraries(test_${name}
      PRIVATE ${arg_DEPS} torva_test_guard torva_test_options GTest::gmock_main)
    torva_test_headers(test_${name})
    target_include_directories(test_${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
    target_compile_definitions(test_${name}
      PRIVATE TORVA_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    if(TORVA_TESTS_TOGETHER AND NOT arg_ALONE)
      add_test(NAME unit.${name} COMMAND test_${name})
      # COST: the longest of these does not begin when all others have ended.
      set_tests_properties(unit.${name} PROPERTIES LABELS unit TIMEOUT 600 COST 10)
    else()
      gtest_discover_tests(test_${name} DISCOVERY_MODE PRE_TEST
        TEST_PREFIX ${name}. PROPERTIES LABELS unit TIMEOUT 120)
    endif()
  endif()
endfunction()

# Warning flags shared by every target of the project.
function(kiv_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-unused-parameter)
  # g++ 12 reports false maybe-uninitialized warnings inside the standard
  # library's variant when building with sanitizers at -O1.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
  endif()
  if(KIV_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# kiv_add_library(name SOURCES ... DEPS ... [PRIVATE_DEPS ...] [NOT_INSTALLED]):
# a shared library with the public headers under inc/, built with hidden
# visibility so that it exports only what those headers mark KIV_API
# (qz/platform/export.h). Unless NOT_INSTALLED
# (a library only the tests use), it is installed and exported with the
# package as kiv::<name without "kiv_">, versioned with SOVERSION.
function(kiv_add_library name)
  cmake_parse_arguments(ARG "NOT_INSTALLED" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/inc>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  kiv_target_warnings(${name})
  string(REGEX REPLACE "^kiv_" "" exportName ${name})
  set_target_properties(${name} PROPERTIES
    EXPORT_NAME ${exportName}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    # Installed, each library finds the others beside it, wherever the
    # package was put.
    INSTALL_RPATH "$ORIGIN")
  add_library(kiv::${exportName} ALIAS ${name})
  if(NOT ARG_NOT_INSTALLED)
    install(TARGETS ${name} EXPORT KivFavoritesTargets
      LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  endif()
endfunction()

# kiv_add_test(name SOURCES ... DEPS ... [LABELS ...] [FIXTURES ...]
#              [DEFINITIONS ...] [NEEDS ...]): one GoogleTest binary, each of
# its tests registered with CTest on its own; FIXTURES names the CTest
# fixtures its tests need (such as "postgres"), DEFINITIONS its compile
# definitions, NEEDS the targets (programs it runs) built before it.
# Nothing is made when KIV_BUILD_TESTS is off.
function(kiv_add_test name)
  if(NOT KIV_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS;FIXTURES;DEFINITIONS;NEEDS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_definitions(${name} PRIVATE ${ARG_DEFINITIONS})
  if(ARG_NEEDS)
    add_dependencies(${name} ${ARG_NEEDS})
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/project)
  kiv_target_warnings(${name})
  # gtest_discover_tests flattens a list given as one property value, so each
  # binary carries exactly one label: its own (such as "concurrency") or "unit".
  set(label unit)
  if(ARG_LABELS)
    list(GET ARG_LABELS 0 label)
  endif()
  set(fixtures)
  if(ARG_FIXTURES)
    set(fixtures FIXTURES_REQUIRED ${ARG_FIXTURES})
  endif()
  gtest_discover_tests(${name}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    PROPERTIES LABELS ${label} ENVIRONMENT "KIV_DATA_DIR=${KIV_BUILD_DATA_DIR}" ${fixtures}
    DISCOVERY_TIMEOUT 60)
endfunction()

# The HTTP tests of favoritesd: Python scripts run against the built server
# and tool (see harness.py). Included from the favoritesd directory's
# CMakeLists.txt; `ctest -L server` runs them all.
set(KIV_SERVER_TEST_ENVIRONMENT
  "FAVORITESD=$<TARGET_FILE:favoritesd>;FAVORITES_TOOL=$<TARGET_FILE:favorites>;KIV_DATA_DIR=${KIV_BUILD_DATA_DIR};PYTHONDONTWRITEBYTECODE=1")

foreach(name rest_api auth hosting limits soap tls concurrency history several_writers)
  set(labels server)
  if(name STREQUAL "concurrency")
    set(labels "server;concurrency")  # also run by the ThreadSanitizer preset
  endif()
  add_test(NAME server_test_${name} COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/test_${name}.py)
  set_tests_properties(server_test_${name} PROPERTIES
    LABELS "${labels}"
    ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT}"
    TIMEOUT 900)
endforeach()
# Several servers share one PostgreSQL catalog: the fixture starts the server.
set_tests_properties(server_test_several_writers PROPERTIES
  FIXTURES_REQUIRED postgres
  ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT};KIV_TEST_PG_CONNINFO=${CMAKE_BINARY_DIR}/pgtest/conninfo")

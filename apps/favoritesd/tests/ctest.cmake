# The HTTP tests of favoritesd: Python scripts run against the built server
# and tool (see harness.py). Included from the favoritesd directory's
# CMakeLists.txt; `ctest -L server` runs them all.
set(KIV_SERVER_TEST_ENVIRONMENT
  "FAVORITESD=$<TARGET_FILE:favoritesd>;FAVORITES_TOOL=$<TARGET_FILE:favorites>;KIV_DATA_DIR=${KIV_BUILD_DATA_DIR};PYTHONDONTWRITEBYTECODE=1")

add_test(NAME server_test_rest_api COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/test_rest_api.py)
set_tests_properties(server_test_rest_api PROPERTIES
  LABELS server
  ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT}"
  TIMEOUT 900)

add_test(NAME server_test_auth COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/test_auth.py)
set_tests_properties(server_test_auth PROPERTIES
  LABELS server
  ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT}"
  TIMEOUT 900)

add_test(NAME server_test_hosting COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/test_hosting.py)
set_tests_properties(server_test_hosting PROPERTIES
  LABELS server
  ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT}"
  TIMEOUT 900)

add_test(NAME server_test_limits COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/test_limits.py)
set_tests_properties(server_test_limits PROPERTIES
  LABELS server
  ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT}"
  TIMEOUT 900)

add_test(NAME server_test_concurrency COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/test_concurrency.py)
set_tests_properties(server_test_concurrency PROPERTIES
  LABELS "server;concurrency"
  ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT}"
  TIMEOUT 900)

add_test(NAME server_test_soap COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/test_soap.py)
set_tests_properties(server_test_soap PROPERTIES
  LABELS server
  ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT}"
  TIMEOUT 900)

add_test(NAME server_test_tls COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/test_tls.py)
set_tests_properties(server_test_tls PROPERTIES
  LABELS server
  ENVIRONMENT "${KIV_SERVER_TEST_ENVIRONMENT}"
  TIMEOUT 900)

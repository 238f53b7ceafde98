# The features tests build their stores and expected answers with GDAL itself.
target_link_libraries(kel_features_tests PRIVATE GDAL::GDAL GEOS::geos_c)

# PostGis* tests run against a throw-away PostgreSQL + PostGIS server that a
# ctest fixture starts before them and stops after them, pass or fail. When
# the server cannot start, the setup test fails and so do they (never a
# silent skip).
set(_kel_postgis_state ${CMAKE_CURRENT_BINARY_DIR}/postgis_server.state)
gtest_discover_tests(kel_features_tests DISCOVERY_TIMEOUT 60 TEST_FILTER "-PostGis*"
  PROPERTIES LABELS features)
gtest_discover_tests(kel_features_tests DISCOVERY_TIMEOUT 60 TEST_FILTER "PostGis*"
  PROPERTIES LABELS features FIXTURES_REQUIRED postgis
             ENVIRONMENT "KEL_TEST_POSTGIS_STATE=${_kel_postgis_state}")
add_test(NAME postgis_server_start
  COMMAND bash ${PROJECT_SOURCE_DIR}/scripts/postgis_test_server.sh start ${_kel_postgis_state})
set_tests_properties(postgis_server_start PROPERTIES FIXTURES_SETUP postgis LABELS features TIMEOUT 120)
add_test(NAME postgis_server_stop
  COMMAND bash ${PROJECT_SOURCE_DIR}/scripts/postgis_test_server.sh stop ${_kel_postgis_state})
set_tests_properties(postgis_server_stop PROPERTIES FIXTURES_CLEANUP postgis LABELS features TIMEOUT 60)

# GEOS is the anchor of every geometry benchmark. The real borders are
# fetched with npm into the build folder on first use, never committed.
target_link_libraries(${name} PRIVATE GEOS::geos_c)
target_compile_definitions(${name} PRIVATE KEL_BENCH_DATA_DIR="${PROJECT_BINARY_DIR}/bench-data")

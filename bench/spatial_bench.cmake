# Embree 3 is the anchor of the picking benchmark; without it only our side runs.
find_package(embree 3 QUIET)
if(embree_FOUND)
  target_link_libraries(spatial_bench PRIVATE embree)
  target_compile_definitions(spatial_bench PRIVATE KEL_HAVE_EMBREE=1)
endif()
target_compile_options(spatial_bench PRIVATE -ffp-contract=off)
# Batches run on OpenMP threads; the benchmark sets how many.
target_link_libraries(spatial_bench PRIVATE OpenMP::OpenMP_CXX)

# Anchors for the SFF benchmarks: stdio (fread/fwrite), memcpy and raw zlib
# deflate/inflate over the same bytes.
find_package(ZLIB QUIET)
if(ZLIB_FOUND)
  target_link_libraries(${name} PRIVATE ZLIB::ZLIB)
  target_compile_definitions(${name} PRIVATE KEL_HAVE_ZLIB=1)
endif()

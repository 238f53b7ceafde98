# Anchors for the image benchmarks: stb_dxt (header only) and libsquish for
# the DXT codec; libjpeg decodes the test photograph. Missing anchors only
# skip their benchmarks.
target_link_libraries(${name} PRIVATE JPEG::JPEG OpenMP::OpenMP_CXX)
find_path(KEL_STB_DXT_DIR stb_dxt.h PATHS /usr/include/stb NO_DEFAULT_PATH)
if(KEL_STB_DXT_DIR)
  target_include_directories(${name} PRIVATE ${KEL_STB_DXT_DIR})
  target_compile_definitions(${name} PRIVATE KEL_HAVE_STB=1)
endif()
find_library(KEL_SQUISH_LIBRARY squish)
find_path(KEL_SQUISH_INCLUDE squish.h)
if(KEL_SQUISH_LIBRARY AND KEL_SQUISH_INCLUDE)
  target_include_directories(${name} PRIVATE ${KEL_SQUISH_INCLUDE})
  target_link_libraries(${name} PRIVATE ${KEL_SQUISH_LIBRARY})
  target_compile_definitions(${name} PRIVATE KEL_HAVE_SQUISH=1)
endif()

# stb_image_resize (header only): 2:1 box-filter anchor for the half-size path.
find_path(KEL_STB_RESIZE_DIR stb_image_resize.h PATHS /usr/include/stb NO_DEFAULT_PATH)
if(KEL_STB_RESIZE_DIR)
  target_include_directories(${name} PRIVATE ${KEL_STB_RESIZE_DIR})
  target_compile_definitions(${name} PRIVATE KEL_HAVE_STB_RESIZE=1)
endif()

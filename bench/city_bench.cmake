# The city benchmark runs the tool's pipeline (kel_city); raw zlib is the
# floor it is measured against. Without the tool there is nothing to run.
if(TARGET kel_city)
  target_link_libraries(city_bench PRIVATE kel_city ZLIB::ZLIB)
else()
  set_target_properties(city_bench PROPERTIES EXCLUDE_FROM_ALL ON)
endif()

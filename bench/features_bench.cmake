# The feature-reading benchmark reads the same GeoPackages with plain OGR;
# GDAL is a hard dependency of the library, so the anchor is always there.
target_link_libraries(${name} PRIVATE GDAL::GDAL)

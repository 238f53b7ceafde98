# The reprojection benchmark calls PROJ directly beside our wrappers; PROJ is
# a hard dependency of the library, so the anchor is always there.
target_link_libraries(${name} PRIVATE PROJ::proj)

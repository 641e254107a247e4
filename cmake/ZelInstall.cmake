# Install rules, the CMake package and the pkg-config file (in progress).

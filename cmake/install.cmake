# cmake --install: the two libraries, their headers, a CMake package (zenrpx::zenrpx) and a pkg-config file.

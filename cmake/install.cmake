# cmake --install: the two libraries, their headers, a CMake package (zenrpx::zenrpx) and a pkg-config file.
include(CMakePackageConfigHelpers)

# The library finds the core library beside it wherever the two are put; LD_LIBRARY_PATH goes first, so that a core
# library of the user's own can still take its place.
set_target_properties(zenrpx PROPERTIES INSTALL_RPATH "\$ORIGIN")

install(TARGETS zenrpx zencore EXPORT zenrpxTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/zenr.h include/zencore.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES LICENSE README.md CHANGES.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(zenr_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zenrpx)
install(EXPORT zenrpxTargets NAMESPACE zenrpx:: DESTINATION ${zenr_package_dir})
configure_package_config_file(packaging/zenrpxConfig.cmake.in ${PROJECT_BINARY_DIR}/zenrpxConfig.cmake
  INSTALL_DESTINATION ${zenr_package_dir})
# The soname carries both numbers, so that another minor version is another library.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zenrpxConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zenrpxConfig.cmake ${PROJECT_BINARY_DIR}/zenrpxConfigVersion.cmake
  DESTINATION ${zenr_package_dir})

# Paths in the pkg-config file start from the file itself, so that an installed tree can be moved.
file(RELATIVE_PATH ZENR_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZENR_PC_TO_PREFIX "${ZENR_PC_TO_PREFIX}")
configure_file(packaging/zenrpx.pc.in ${PROJECT_BINARY_DIR}/zenrpx.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zenrpx.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

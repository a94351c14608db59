# What `cmake --install` adds for users of the library: a CMake package
# (find_package(SableComm CONFIG) -> SableComm::sable_comm) and sable_comm.pc for pkg-config.
include(CMakePackageConfigHelpers)

set(SABLE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/SableComm)

install(EXPORT sable_comm-targets
  NAMESPACE SableComm::
  FILE SableCommTargets.cmake
  DESTINATION ${SABLE_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/SableCommConfig.cmake.in
  ${PROJECT_BINARY_DIR}/SableCommConfig.cmake
  INSTALL_DESTINATION ${SABLE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/SableCommConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/SableCommConfig.cmake
              ${PROJECT_BINARY_DIR}/SableCommConfigVersion.cmake
        DESTINATION ${SABLE_CMAKE_DIR})

# The .pc file finds its prefix from where it lies, so `cmake --install --prefix DIR` works
# whatever prefix the build was configured with.
file(RELATIVE_PATH SABLE_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" SABLE_PC_TO_PREFIX "${SABLE_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/sable_comm.pc.in ${PROJECT_BINARY_DIR}/sable_comm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sable_comm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

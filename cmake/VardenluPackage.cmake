# Install rules and the files a user's project finds the library by: the CMake
# package (lib/cmake/vardenlu), the pkg-config file (lib/pkgconfig) and a
# Debian package through CPack.  Every installed path is relative to the
# prefix, so an installed tree can be moved as a whole.
include(CMakePackageConfigHelpers)

set(VLU_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vardenlu)
set(VLU_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS vardenlu EXPORT vardenluTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

if(TARGET vlu-bench)
  install(TARGETS vlu-bench RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

install(EXPORT vardenluTargets
  NAMESPACE vardenlu::
  DESTINATION ${VLU_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/vardenluConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/vardenluConfig.cmake
  INSTALL_DESTINATION ${VLU_CMAKE_DIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/vardenluConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/vardenluConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/vardenluConfigVersion.cmake
  DESTINATION ${VLU_CMAKE_DIR}
  COMPONENT development)

# pkg-config: the prefix is found from the file's own place, so that nothing
# in it names the prefix the tree was built for.  Absolute install dirs (given
# by hand) are written as they are.
file(RELATIVE_PATH VLU_PC_TO_PREFIX
  ${CMAKE_INSTALL_PREFIX}/${VLU_PKGCONFIG_DIR} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" VLU_PC_TO_PREFIX "${VLU_PC_TO_PREFIX}")
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(VLU_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(VLU_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/vardenlu.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/vardenlu.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vardenlu.pc
  DESTINATION ${VLU_PKGCONFIG_DIR}
  COMPONENT development)

# Debian package of the whole installed tree: cpack -G DEB in the build folder.
set(CPACK_PACKAGE_NAME vardenlu)
set(CPACK_PACKAGE_VENDOR "vardenlu developers")
set(CPACK_PACKAGE_CONTACT "vardenlu developers <vardenlu@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
find_program(VLU_DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(VLU_DPKG_SHLIBDEPS)
if(VLU_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6")
endif()
include(CPack)

# What `cmake --install` puts where, and the Debian packages made of it.
#
#   component  package        content
#   runtime    libtessel      the shared libraries
#   dev        libtessel-dev  headers, static libraries, CMake package, pkg-config files, documents
#   lab        tessel-lab     the program and the scenarios

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tessel)

# Headers keep the names by which they include each other: "host/..." and "sm/..." below
# include/tessel. The engine's other headers are its own.
install(
  DIRECTORY ${PROJECT_SOURCE_DIR}/host
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tessel
  COMPONENT dev
  FILES_MATCHING
  PATTERN "*.h"
  PATTERN DhGroup.h EXCLUDE
  PATTERN RunGuard.h EXCLUDE)
install(
  FILES ${PROJECT_SOURCE_DIR}/sm/TesselV1Sm.h ${PROJECT_SOURCE_DIR}/sm/NestedReactors.h
        ${PROJECT_SOURCE_DIR}/sm/WorkQueue.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tessel/sm
  COMPONENT dev)

install(
  TARGETS tessel_host tessel_engine
  EXPORT tessel-static
  ARCHIVE COMPONENT dev)
set(exports tessel-static)
if(TESSEL_SHARED)
  install(
    TARGETS tessel_host_shared tessel_engine_shared
    EXPORT tessel-shared
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev)
  list(APPEND exports tessel-shared)
endif()
foreach(export IN LISTS exports)
  install(
    EXPORT ${export}
    NAMESPACE tessel::
    DESTINATION ${package_dir}
    COMPONENT dev)
endforeach()

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tesselConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/tesselConfig.cmake
                              INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tesselConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(
  FILES ${CMAKE_CURRENT_BINARY_DIR}/tesselConfig.cmake
        ${CMAKE_CURRENT_BINARY_DIR}/tesselConfigVersion.cmake
  DESTINATION ${package_dir}
  COMPONENT dev)
# The files say where they are relative to themselves, so that an installed tree can be moved.
file(RELATIVE_PATH up ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
foreach(name host engine)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/tessel-${name}.pc.in tessel-${name}.pc @ONLY)
  install(
    FILES ${CMAKE_CURRENT_BINARY_DIR}/tessel-${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT dev)
endforeach()
install(
  FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT dev)
install(
  DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT dev)

# What has to be built for it: installing asks for nothing else, tests least of all.
add_custom_target(installed DEPENDS tessel_host tessel_engine)
if(TESSEL_SHARED)
  add_dependencies(installed tessel_host_shared tessel_engine_shared)
endif()
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

if(TESSEL_LAB)
  add_dependencies(installed tessel-lab)
  install(TARGETS tessel-lab RUNTIME COMPONENT lab)
  install(
    DIRECTORY ${PROJECT_SOURCE_DIR}/scenarios
    DESTINATION ${CMAKE_INSTALL_DATADIR}/tessel
    COMPONENT lab)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessel)
set(CPACK_PACKAGE_CONTACT "The Tessel developers <tessel@localhost>")
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL dev)
if(TESSEL_SHARED)
  list(APPEND CPACK_COMPONENTS_ALL runtime)
endif()
if(TESSEL_LAB)
  list(APPEND CPACK_COMPONENTS_ALL lab)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The engine's library is linked to the host's, which is in the same package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/host)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtessel)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: shared libraries")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtessel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libssl-dev (>= 3.0)")
set(CPACK_COMPONENT_DEV_DESCRIPTION "${PROJECT_DESCRIPTION}: what an agent is built with")
if(TESSEL_SHARED)
  set(CPACK_COMPONENT_DEV_DEPENDS runtime)
endif()
set(CPACK_DEBIAN_LAB_PACKAGE_NAME tessel-lab)
set(CPACK_DEBIAN_LAB_PACKAGE_SECTION net)
set(CPACK_COMPONENT_LAB_DESCRIPTION "${PROJECT_DESCRIPTION}: runs meshes of routers in virtual time")
include(CPack)

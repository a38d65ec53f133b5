# Installation of libulmarcomms: the shared library with its SONAME links,
# the C header and the C++ layer, a CMake package (UlmarComms::ulmarcomms,
# same-major compatibility), a pkg-config file, the system service's unit
# and the sysusers.d file that creates its user, the examples' sources, the
# user guide and the security notes.
#
# The pkg-config file and the unit name absolute paths, so they are written
# at install time from the prefix then in force: `cmake --install --prefix P`
# gets files that point into P, not into the prefix chosen at configure time.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ULMARCOMMS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/UlmarComms)
# Programs defined after this file (the daemon and the client) find the
# library beside them in whatever prefix they are installed to.
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
# Relative to the prefix; distributions that keep units elsewhere override it.
set(ULMARCOMMS_SYSTEMD_UNITDIR lib/systemd/system CACHE STRING
    "Where the ulmarcommsd unit is installed (relative to the prefix, or absolute)")
set(ULMARCOMMS_SYSUSERS_DIR lib/sysusers.d CACHE STRING
    "Where the file creating the service's user goes (relative to the prefix, or absolute)")

install(TARGETS ulmarcomms EXPORT UlmarCommsTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/ulmarcomms.h ${PROJECT_SOURCE_DIR}/include/ulmarcomms.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT UlmarCommsTargets NAMESPACE UlmarComms:: DESTINATION ${ULMARCOMMS_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/UlmarCommsConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/UlmarCommsConfig.cmake
                              INSTALL_DESTINATION ${ULMARCOMMS_CMAKE_DIR}
                              PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/UlmarCommsConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/UlmarCommsConfig.cmake ${PROJECT_BINARY_DIR}/UlmarCommsConfigVersion.cmake
        DESTINATION ${ULMARCOMMS_CMAKE_DIR})

# A directory as the installed files name it: relative ones below `base`.
function(ulmarcomms_installed_path out dir base)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "${base}/${dir}" PARENT_SCOPE)
  endif()
endfunction()
ulmarcomms_installed_path(ULMARCOMMS_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR} "\${prefix}")
ulmarcomms_installed_path(ULMARCOMMS_PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR} "\${prefix}")
ulmarcomms_installed_path(ULMARCOMMS_UNIT_BINDIR ${CMAKE_INSTALL_BINDIR} "@ULMARCOMMS_PREFIX@")
ulmarcomms_installed_path(ULMARCOMMS_UNIT_DOCDIR ${CMAKE_INSTALL_DOCDIR} "@ULMARCOMMS_PREFIX@")

# Written at install time (see above) into a staging directory, then
# installed; @ULMARCOMMS_PREFIX@ becomes the install-time prefix.
set(ULMARCOMMS_STAGE ${PROJECT_BINARY_DIR}/install-stage)
set(ULMARCOMMS_PREFIX "@ULMARCOMMS_PREFIX@") # left for the second pass
configure_file(${CMAKE_CURRENT_LIST_DIR}/ulmarcomms.pc.in ${ULMARCOMMS_STAGE}/ulmarcomms.pc.in @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/ulmarcommsd.service.in ${ULMARCOMMS_STAGE}/ulmarcommsd.service.in @ONLY)
install(CODE "
  set(ULMARCOMMS_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${ULMARCOMMS_STAGE}/ulmarcomms.pc.in\" \"${ULMARCOMMS_STAGE}/ulmarcomms.pc\" @ONLY)
  configure_file(\"${ULMARCOMMS_STAGE}/ulmarcommsd.service.in\" \"${ULMARCOMMS_STAGE}/ulmarcommsd.service\" @ONLY)
")
install(FILES ${ULMARCOMMS_STAGE}/ulmarcomms.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES ${ULMARCOMMS_STAGE}/ulmarcommsd.service DESTINATION ${ULMARCOMMS_SYSTEMD_UNITDIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/ulmarcomms.sysusers DESTINATION ${ULMARCOMMS_SYSUSERS_DIR}
        RENAME ulmarcomms.conf)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES ${PROJECT_SOURCE_DIR}/docs/user-guide.md ${PROJECT_SOURCE_DIR}/docs/security.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

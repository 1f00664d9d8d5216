# Install layout (GNUInstallDirs) and the Debian packages made by CPack.
#
# Components, one Debian package each:
#   module      libbinocular.so, its public header, the CMake package
#               configuration, binocular.pc and the example configuration
#   tools       the camera simulator and the viewer
#   stereounit  libdpu.so, our substitute for the stereo unit's vendor library
# The module's package depends on the virtual package binocular-stereo-unit:
# the substitute provides it, and so can the vendor's package, which then
# replaces the substitute.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(BINOCULAR_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/binocular")

target_include_directories(binocular INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
# libdpu.so is installed beside the module, in whatever prefix.
set_target_properties(binocular PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS binocular EXPORT binocularTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT module)
install(FILES ${PROJECT_SOURCE_DIR}/include/binocular/binocular.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/binocular COMPONENT module)
install(EXPORT binocularTargets NAMESPACE binocular::
  DESTINATION ${BINOCULAR_CMAKE_DIR} COMPONENT module)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/binocularConfig.cmake.in
  ${PROJECT_BINARY_DIR}/binocularConfig.cmake INSTALL_DESTINATION ${BINOCULAR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/binocularConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/binocularConfig.cmake
  ${PROJECT_BINARY_DIR}/binocularConfigVersion.cmake
  DESTINATION ${BINOCULAR_CMAKE_DIR} COMPONENT module)
# The .pc file finds its prefix from its own directory, so it stays right
# whatever --prefix the install is given.
file(RELATIVE_PATH BINO_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" BINO_PC_TO_PREFIX "${BINO_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/binocular.pc.in ${PROJECT_BINARY_DIR}/binocular.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/binocular.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT module)
# The module reads its configuration from a fixed path (README.md); the
# commented example is installed as documentation to copy from.
install(FILES ${PROJECT_SOURCE_DIR}/config/binocular.ini
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT module)

set(bino_components module)
set(bino_files_module "$<TARGET_FILE:binocular>")
if(TARGET dpu)
  install(TARGETS dpu LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT stereounit)
  list(APPEND bino_components stereounit)
  set(bino_files_stereounit "$<TARGET_FILE:dpu>")
endif()
set(bino_tools)
foreach(tool camsim viewer host)
  if(TARGET ${tool})
    list(APPEND bino_tools ${tool})
  endif()
endforeach()
if(bino_tools)
  install(TARGETS ${bino_tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  # Installed under the project's prefix: plain "host" and "viewer" are other
  # packages' commands (bind9-host ships /usr/bin/host).
  foreach(tool IN LISTS bino_tools)
    install(CODE "file(RENAME \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/${tool}\"
                       \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/binocular-${tool}\")"
            COMPONENT tools)
  endforeach()
  list(APPEND bino_components tools)
  set(bino_files_tools)
  foreach(tool IN LISTS bino_tools)
    list(APPEND bino_files_tools "$<TARGET_FILE:${tool}>")
  endforeach()
endif()

# ---------------------------------------------------------------- packages
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME binocular)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Embedded vision team <vision@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Stereo obstacle sensing for a multirotor companion computer")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${bino_components})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME binocular)
set(CPACK_COMPONENT_MODULE_DESCRIPTION
  "Stereo obstacle sensing module\nlibbinocular.so, loaded by the flight host process, with its public header, CMake package configuration and pkg-config file.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME binocular-tools)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "Camera simulator and debug stream viewer of the binocular module")
set(CPACK_DEBIAN_STEREOUNIT_PACKAGE_NAME binocular-dpu)
set(CPACK_COMPONENT_STEREOUNIT_DESCRIPTION
  "Substitute for the stereo unit's library\nlibdpu.so computing disparity in software (census semi-global matching); the vendor's package replaces it on the aircraft.")
set(CPACK_DEBIAN_STEREOUNIT_PACKAGE_PROVIDES binocular-stereo-unit)
set(CPACK_DEBIAN_STEREOUNIT_PACKAGE_CONFLICTS binocular-stereo-unit)
set(CPACK_DEBIAN_STEREOUNIT_PACKAGE_REPLACES binocular-stereo-unit)

# Depends are computed when cpack runs (cmake/DebDepends.cmake), from the
# built binaries, by dpkg-shlibdeps: against this machine's dpkg database in a
# native build, against the arm64 root's in the cross build.
set(bino_deb_root "")
if(CMAKE_CROSSCOMPILING AND AARCH64_SYSROOT)
  set(bino_deb_root "${AARCH64_SYSROOT}")
endif()
set(bino_extra_libdirs "")
if(TARGET dpu)
  set(bino_extra_libdirs "$<TARGET_FILE_DIR:dpu>")
endif()
set(bino_depends_config "set(BINO_DEB_COMPONENTS \"${bino_components}\")\n")
foreach(component IN LISTS bino_components)
  string(APPEND bino_depends_config "set(BINO_DEB_FILES_${component} \"${bino_files_${component}}\")\n")
endforeach()
string(APPEND bino_depends_config
  "set(BINO_DEB_ROOT \"${bino_deb_root}\")\n"
  "set(BINO_DEB_ARCH \"${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}\")\n"
  "set(BINO_DEB_LIBDIRS \"${bino_extra_libdirs}\")\n"
  "set(BINO_DEB_WORK \"${PROJECT_BINARY_DIR}/deb-depends\")\n"
  "set(BINO_DEB_EXTRA_module \"binocular-stereo-unit\")\n"
  "set(BINO_DEB_EXTRA_tools \"\")\n"
  "set(BINO_DEB_EXTRA_stereounit \"\")\n"
  "include(\"${PROJECT_SOURCE_DIR}/cmake/DebDepends.cmake\")\n")
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/CPackProjectConfig.cmake CONTENT "${bino_depends_config}")
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/CPackProjectConfig.cmake)

include(CPack)

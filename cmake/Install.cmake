# `make install` and the Debian package: what goes where under the prefix.
#
#   lib/libkivcam.so, lib/libkivcamreader.so   the libraries
#   lib/KivGigEGenTL.cti                       the network producer, found first (real cameras)
#   lib/kivcam/virtual/*.cti                   the virtual cameras: put this folder on
#                                              LD_LIBRARY_PATH to use them instead
#   bin/                                       the tools
#   include/kivcam, kivgenapi, kivgentl, kivsim  the C header (and its extensions), the
#                                              node-map engine, the GenTL ABI, the virtual
#                                              cameras' control interface
#   lib/cmake/KivCam                           find_package(KivCam) -> KivCam::kivcam
#   lib/pkgconfig/kivcam.pc, kivcamreader.pc
#   lib/python3.N/dist-packages/kivcam         the Python package, once python/kivcam exists
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KIVCAM_VIRTUAL_DIR ${CMAKE_INSTALL_LIBDIR}/kivcam/virtual)
set(KIVCAM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KivCam)
# Debian's python3 looks in lib/python3.N/dist-packages under both /usr and
# /usr/local (lib/python3/dist-packages only under /usr).
set(KIVCAM_PYTHON_DIR lib/python3/dist-packages)
find_program(KIVCAM_PYTHON3 python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(KIVCAM_PYTHON3)
  execute_process(COMMAND ${KIVCAM_PYTHON3} -c "import sys; print('%d.%d' % sys.version_info[:2])"
                  OUTPUT_VARIABLE py_version OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE py_rc)
  if(py_rc EQUAL 0)
    set(KIVCAM_PYTHON_DIR lib/python${py_version}/dist-packages)
  endif()
endif()

install(TARGETS kivcam kivcamreader EXPORT KivCamTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT KivCamTargets NAMESPACE KivCam:: DESTINATION ${KIVCAM_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KivCamConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/install/KivCamConfig.cmake
                              INSTALL_DESTINATION ${KIVCAM_CMAKE_DIR} PATH_VARS KIVCAM_VIRTUAL_DIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/install/KivCamConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/install/KivCamConfig.cmake ${CMAKE_BINARY_DIR}/install/KivCamConfigVersion.cmake
        DESTINATION ${KIVCAM_CMAKE_DIR})

foreach(pc kivcam kivcamreader)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${CMAKE_BINARY_DIR}/install/${pc}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/install/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# Headers: the public C interface with whatever extension headers sit beside
# it, and the headers a C++ or GenTL host needs with it.
install(DIRECTORY include/kivcam/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kivcam FILES_MATCHING PATTERN "*.h")
install(DIRECTORY genapi/include/kivgenapi/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kivgenapi
        FILES_MATCHING PATTERN "*.h")
install(FILES gentl/include/kivgentl/gentl.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kivgentl)
install(FILES producers/include/kivsim/kivsim.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kivsim)

# Tools find the library one folder up.
set(KIVCAM_TOOLS kivcam_cli kivcam-monitor kivcam-view kivgenapi-dump kivgev-sim)
foreach(t IN LISTS KIVCAM_TOOLS)
  if(TARGET ${t})
    set_target_properties(${t} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    install(TARGETS ${t} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# The network producer beside the library, where the loader finds it first;
# the virtual cameras one folder down (gev/README.md).
install(TARGETS kivgev_producer LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS kivsim_GigE kivsim_USB LIBRARY DESTINATION ${KIVCAM_VIRTUAL_DIR})

# The Python package is plain source, copied as it is (OPTIONAL: the rule
# holds before python/kivcam exists, without a new configure once it does).
install(DIRECTORY python/kivcam DESTINATION ${KIVCAM_PYTHON_DIR} OPTIONAL
        PATTERN "__pycache__" EXCLUDE PATTERN "*.pyc" EXCLUDE)

set(KIVCAM_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/kivcam)
install(FILES README.md DESTINATION ${KIVCAM_DOC_DIR})
install(DIRECTORY docs/ DESTINATION ${KIVCAM_DOC_DIR}/guide FILES_MATCHING PATTERN "*.md")

# `cpack` (in the build folder): a Debian package of the same layout under /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kivcam)
set(CPACK_PACKAGE_VENDOR "Valdrix")
set(CPACK_PACKAGE_CONTACT "KivCam maintainers <kivcam@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Camera-control library for GigE Vision and USB3 Vision cameras")
set(CPACK_PACKAGE_DESCRIPTION
    "KivCam drives industrial cameras through GenTL producers: listing, opening, features, registers, image acquisition and pixel conversion, with a call-log monitor and virtual cameras for development without hardware.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "python3, python3-numpy")  # for the Python package
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Let dpkg-shlibdeps see the package's own libraries, not only the system's.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
# The shlibs entries of the two libraries, written here: CPack's own would
# also try (and warn about) the producers, which are modules without a soname.
file(WRITE ${CMAKE_BINARY_DIR}/install/shlibs
     "libkivcam ${PROJECT_VERSION_MAJOR} kivcam (>= ${PROJECT_VERSION})\n"
     "libkivcamreader ${PROJECT_VERSION_MAJOR} kivcam (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/install/shlibs)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

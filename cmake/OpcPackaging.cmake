# Debian packages through CPack (`cpack -G DEB` in a build folder configured
# with -DCMAKE_INSTALL_PREFIX=/usr, see scripts/package-deb.sh):
#   libopcfspackage1     the shared libraries
#   libopcfspackage-dev  headers, the CMake package and the pkg-config files
#   opcdir               the tool, its man page and bash completion
# dpkg-shlibdeps fills in the system libraries each package needs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME opcfspackage)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_CONTACT "opcfspackage maintainers <maintainers@opcfspackage.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libopcfspackage1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Open Packaging Conventions packages kept as plain folders (libraries)
 Shared libraries that keep an OPC package (the container of .docx, .xlsx and
 .pptx files) as a folder on disk, committed as a whole.")
# The runtime package ships the libraries' shlibs file and runs ldconfig.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libopcfspackage-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libopcfspackage1 (= ${PROJECT_VERSION}), libboost-dev, libboost-system-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "Open Packaging Conventions packages kept as plain folders (development files)
 Headers, the CMake package (find_package(opcfspackage)) and pkg-config files.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME opcdir)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libopcfspackage1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "Keep Office documents as folders; diff, check and pack them
 opcdir turns .docx, .xlsx and .pptx files into folders and back, diffs and
 checks packages, and serves git as a textconv driver.")
# opcdir links the runtime package's libraries, which dpkg-shlibdeps finds in
# the staging folder rather than on the system.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    "${PROJECT_BINARY_DIR}/opccore" "${PROJECT_BINARY_DIR}/opcfspackage")

include(CPack)

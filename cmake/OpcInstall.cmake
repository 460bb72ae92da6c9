# Install rules: both libraries with their headers, a CMake package
# (find_package(opcfspackage CONFIG)) giving opc::opccore and opc::opcfspackage,
# a pkg-config file for each library, and opcdir when it is built. Each rule
# belongs to a component: runtime (the shared libraries), dev (headers, CMake
# and pkg-config files) and tool (opcdir, its man page and bash completion),
# the three Debian packages of OpcPackaging.cmake.
include(CMakePackageConfigHelpers)

set(OPC_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/opcfspackage")

# Installed binaries find the project's libraries beside themselves, so an
# install into any prefix runs without LD_LIBRARY_PATH.
file(RELATIVE_PATH opc_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set_target_properties(opcfspackage PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS opccore opcfspackage
    EXPORT opcfspackageTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)
install(DIRECTORY
        "${PROJECT_SOURCE_DIR}/opccore/include/opccore"
        "${PROJECT_SOURCE_DIR}/opcfspackage/include/opcfspackage"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    COMPONENT dev
    FILES_MATCHING PATTERN "*.h")

install(EXPORT opcfspackageTargets
    NAMESPACE opc::
    DESTINATION "${OPC_CMAKE_DIR}"
    COMPONENT dev)
configure_package_config_file(
    "${CMAKE_CURRENT_LIST_DIR}/opcfspackageConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/opcfspackageConfig.cmake"
    INSTALL_DESTINATION "${OPC_CMAKE_DIR}")
# The major version is the SONAME's: a new one breaks the binary interface.
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/opcfspackageConfigVersion.cmake"
    VERSION "${PROJECT_VERSION}"
    COMPATIBILITY SameMajorVersion)
install(FILES
        "${PROJECT_BINARY_DIR}/opcfspackageConfig.cmake"
        "${PROJECT_BINARY_DIR}/opcfspackageConfigVersion.cmake"
    DESTINATION "${OPC_CMAKE_DIR}"
    COMPONENT dev)

# pkg-config files locate the prefix from their own folder (${pcfiledir}), so
# `cmake --install --prefix` anywhere gives working files. Absolute install
# folders are written as they are.
set(OPC_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(OPC_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(OPC_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(OPC_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
    file(RELATIVE_PATH opc_pc_up "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
    string(REGEX REPLACE "/$" "" opc_pc_up "${opc_pc_up}")
    set(OPC_PC_PREFIX "\${pcfiledir}/${opc_pc_up}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(OPC_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
endif()

# Boost ships no pkg-config file on Debian, so opccore's file names it
# directly; folders the compiler searches anyway are left out.
set(OPC_PC_BOOST_CFLAGS "")
foreach(dir IN LISTS Boost_INCLUDE_DIRS)
    if(NOT dir IN_LIST CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
        string(APPEND OPC_PC_BOOST_CFLAGS " -I${dir}")
    endif()
endforeach()
set(OPC_PC_BOOST_LIBS "")
if(Boost_LIBRARY_DIRS)
    foreach(dir IN LISTS Boost_LIBRARY_DIRS)
        if(NOT dir IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
            string(APPEND OPC_PC_BOOST_LIBS " -L${dir}")
        endif()
    endforeach()
endif()
string(APPEND OPC_PC_BOOST_LIBS " -lboost_system")

foreach(lib IN ITEMS opccore opcfspackage)
    configure_file("${CMAKE_CURRENT_LIST_DIR}/${lib}.pc.in" "${PROJECT_BINARY_DIR}/${lib}.pc" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/${lib}.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)
endforeach()

if(TARGET opcdir)
    set_target_properties(opcdir PROPERTIES INSTALL_RPATH "$ORIGIN/${opc_bin_to_lib}")
    install(TARGETS opcdir RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tool)
    # Debian keeps manual pages compressed, without a timestamp in the gzip
    # header so that builds repeat.
    set(opc_man "${PROJECT_BINARY_DIR}/opcdir.1.gz")
    add_custom_command(OUTPUT "${opc_man}"
        COMMAND gzip -9 -n -c "${PROJECT_SOURCE_DIR}/tools/opcdir/share/opcdir.1" > "${opc_man}"
        DEPENDS "${PROJECT_SOURCE_DIR}/tools/opcdir/share/opcdir.1"
        VERBATIM)
    add_custom_target(opcdir_man ALL DEPENDS "${opc_man}")
    install(FILES "${opc_man}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tool)
    install(FILES "${PROJECT_SOURCE_DIR}/tools/opcdir/share/opcdir.bash-completion"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions"
        RENAME opcdir
        COMPONENT tool)
endif()

include(OpcPackaging)

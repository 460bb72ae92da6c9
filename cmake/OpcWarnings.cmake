# opc_set_warnings(<target>): the project's warning set, as errors when
# OPC_WARNINGS_AS_ERRORS is on.
function(opc_set_warnings target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align
        $<$<BOOL:${OPC_WARNINGS_AS_ERRORS}>:-Werror>)
endfunction()

# opc_library(<target> <export-name>): a shared library of this project with
# hidden visibility, a version and SONAME, and its include/ folder.
function(opc_library target)
    add_library(${target} SHARED)
    add_library(opc::${target} ALIAS ${target})
    set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        EXPORT_NAME ${target})
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    opc_set_warnings(${target})
endfunction()

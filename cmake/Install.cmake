# The exported CMake package and the pkg-config files.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/StatusManager)
install(EXPORT StatusManagerTargets NAMESPACE StatusManager:: DESTINATION ${package_dir} COMPONENT Development)
configure_package_config_file(cmake/StatusManagerConfig.cmake.in ${PROJECT_BINARY_DIR}/StatusManagerConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/StatusManagerConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/StatusManagerConfig.cmake
    ${PROJECT_BINARY_DIR}/StatusManagerConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT Development)

set(package_dir_for_c ${CMAKE_INSTALL_LIBDIR}/cmake/StatusManagerC)
install(EXPORT StatusManagerCTargets NAMESPACE StatusManagerC:: DESTINATION ${package_dir_for_c} COMPONENT Development)
configure_package_config_file(cmake/StatusManagerCConfig.cmake.in ${PROJECT_BINARY_DIR}/StatusManagerCConfig.cmake
    INSTALL_DESTINATION ${package_dir_for_c})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/StatusManagerCConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/StatusManagerCConfig.cmake
    ${PROJECT_BINARY_DIR}/StatusManagerCConfigVersion.cmake
    DESTINATION ${package_dir_for_c} COMPONENT Development)

# The pkg-config files find the installation relative to themselves, so it can be installed to another prefix, or moved.
# This does not work with an absolute library folder. With the prefix /usr the paths must be plain, because pkg-config then
# recognises and leaves out the folders that every compiler searches.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR CMAKE_INSTALL_PREFIX STREQUAL /usr)
    set(PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
    file(RELATIVE_PATH way_back /${pc_dir} /)
    set(PC_PREFIX "\${pcfiledir}/${way_back}")
    string(REGEX REPLACE "/$" "" PC_PREFIX "${PC_PREFIX}")
endif()
foreach(kind LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
        set(PC_${kind} "${CMAKE_INSTALL_${kind}}")
    else()
        set(PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif()
endforeach()
foreach(name veskcommon statusmanager statushelpers statusmanager-c)
    configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${pc_dir} COMPONENT Development)
endforeach()

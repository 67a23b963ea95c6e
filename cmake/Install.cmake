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

# pkg-config wants absolute paths; an absolute CMAKE_INSTALL_LIBDIR stays what it is.
foreach(kind LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
        set(PC_${kind} "${CMAKE_INSTALL_${kind}}")
    else()
        set(PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif()
endforeach()
foreach(name veskcommon statusmanager)
    configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
endforeach()

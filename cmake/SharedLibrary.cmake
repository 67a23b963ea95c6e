# The common settings of this project's shared libraries.
#   statusmanager_shared_library(TARGET [FOR_C] HEADERS file... SOURCES file...)
# FOR_C: its users write C, and find it in the CMake package StatusManagerC instead of StatusManager.
function(statusmanager_shared_library target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "FOR_C" "" "HEADERS;SOURCES")
    set(package StatusManager)
    set(users_language PUBLIC)
    if(arg_FOR_C)
        set(package StatusManagerC)
        set(users_language PRIVATE)
    endif()
    add_library(${target} SHARED ${arg_SOURCES})
    add_library(${package}::${target} ALIAS ${target})
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR})
    target_compile_features(${target} ${users_language} cxx_std_17)
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${STATUSMANAGER_INCLUDE_DIR}>)
    target_link_libraries(${target} PRIVATE statusmanager_warnings)
    # The libraries' threads run until the process ends, and logging keeps addresses inside them. So the libraries must
    # stay loaded even when a plugin that loaded them is unloaded. Undefined symbols are errors: a library must link
    # everything it needs.
    target_link_options(${target} PRIVATE LINKER:-z,nodelete)
    if(NOT STATUSMANAGER_SANITIZE)
        target_link_options(${target} PRIVATE LINKER:-z,defs)
    endif()

    file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    install(TARGETS ${target} EXPORT ${package}Targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
    if(arg_HEADERS)
        install(FILES ${arg_HEADERS} DESTINATION ${STATUSMANAGER_INCLUDE_DIR}/${folder} COMPONENT Development)
    endif()
endfunction()

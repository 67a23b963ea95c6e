# Lets the tests run programs of another processor. Sets
#   TEST_TIME_FACTOR               the factor by which a test may take longer than usual
#   CMAKE_CROSSCOMPILING_EMULATOR  the program that runs all programs of this processor
# and defines make_startable(target...), which sets PROGRAM_<target> to the command that starts it: the program itself, or a
# script that emulates it. The script passes itself as the program's name, so that the program can start itself.

set(TEST_TIME_FACTOR 1)
if(CMAKE_CROSSCOMPILING_EMULATOR)
    set(TEST_TIME_FACTOR 10)

    # The emulator does not support everything that the broker asks the kernel for: see Words.h. A library, built for this
    # machine, is loaded into the emulator for that. Another one is loaded into the programs, by their own loader, so that
    # programs of this machine that they start do not get it.
    set(mended_emulator ${PROJECT_BINARY_DIR}/emulated/emulator.so)
    set(mended_program ${PROJECT_BINARY_DIR}/emulated/libemulated.so)
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/emulated)
    find_program(HOST_CXX NAMES c++ g++ REQUIRED)
    add_custom_command(OUTPUT ${mended_emulator}
        COMMAND ${HOST_CXX} -std=c++17 -O2 -Wall -Wextra -Werror -shared -fPIC -I ${PROJECT_SOURCE_DIR}
                ${CMAKE_CURRENT_LIST_DIR}/Emulator.cpp -o ${mended_emulator}
        DEPENDS ${CMAKE_CURRENT_LIST_DIR}/Emulator.cpp ${CMAKE_CURRENT_LIST_DIR}/Words.h)
    add_custom_target(emulator DEPENDS ${mended_emulator})
    add_library(emulated SHARED ${CMAKE_CURRENT_LIST_DIR}/Emulated.cpp)
    target_include_directories(emulated PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(emulated PRIVATE statusmanager_warnings ${CMAKE_DL_LIBS})
    set_target_properties(emulated PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/emulated)
    add_dependencies(emulated emulator)

    file(GLOB loader ${CMAKE_SYSROOT}/lib/ld-linux-*.so.*)
    list(POP_FRONT CMAKE_CROSSCOMPILING_EMULATOR qemu)
    set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/env LD_PRELOAD=${mended_emulator} ${qemu} -U LD_PRELOAD
        ${CMAKE_CROSSCOMPILING_EMULATOR} ${loader} --preload ${mended_program})
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
endif()

function(make_startable)
    foreach(target IN LISTS ARGN)
        if(NOT emulator)
            set(PROGRAM_${target} $<TARGET_FILE:${target}> PARENT_SCOPE)
            continue()
        endif()
        set(script ${PROJECT_BINARY_DIR}/emulated/${target})
        file(GENERATE OUTPUT ${script} CONTENT "#!/bin/sh\nexec ${emulator} --argv0 \"$0\" $<TARGET_FILE:${target}> \"$@\"\n"
            FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
        set(PROGRAM_${target} ${script} PARENT_SCOPE)
    endforeach()
endfunction()

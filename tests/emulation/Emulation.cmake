# How programs of another processor are run by the tests. Sets
#   TEST_TIME_FACTOR               how many times longer than elsewhere a test may take
#   CMAKE_CROSSCOMPILING_EMULATOR  to what all programs of this processor's kind are run with
# and defines make_startable(target...), which sets PROGRAM_<target> to what starts it: the program, or a script that
# emulates it and gives itself as the name by which the program was called, so that it can start itself.

set(TEST_TIME_FACTOR 1)
if(CMAKE_CROSSCOMPILING_EMULATOR)
    set(TEST_TIME_FACTOR 10)

    # The emulator does not know all that the broker asks the kernel for: see Words.h. It gets it from a library that is
    # loaded into it, built for this machine, and one that is loaded into the programs, by their own loader so that the
    # programs of this machine that they start are spared it.
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

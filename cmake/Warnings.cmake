# One interface target carries the warnings. The developers' presets make errors of them, with CMake's own variable
# CMAKE_COMPILE_WARNING_AS_ERROR; elsewhere, a compiler of tomorrow that warns of more must not fail.
# Without -Woverloaded-virtual: GCC 12 reports it at the base's declaration, where the one class that hides its
# base's overloads on purpose (StatusManagerStub) cannot except itself.
add_library(statusmanager_warnings INTERFACE)
target_compile_options(statusmanager_warnings INTERFACE
    -Wall -Wextra -Wpedantic
    -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-align -Wcast-qual
    -Wnon-virtual-dtor -Wformat=2 -Wundef -Wunused -Wextra-semi
    -Wdouble-promotion -Wnull-dereference -Wimplicit-fallthrough)

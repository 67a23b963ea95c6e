# One interface target has the warnings. The developers' presets make them errors, with CMake's variable
# CMAKE_COMPILE_WARNING_AS_ERROR. Other builds must not fail when a newer compiler has more warnings.
# Without -Woverloaded-virtual: StatusManagerStub hides its base's overloads on purpose. GCC 12 reports that at the base's
# declaration, where StatusManagerStub cannot disable the warning.
add_library(statusmanager_warnings INTERFACE)
target_compile_options(statusmanager_warnings INTERFACE
    -Wall -Wextra -Wpedantic
    -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-align -Wcast-qual
    -Wnon-virtual-dtor -Wformat=2 -Wundef -Wunused -Wextra-semi
    -Wdouble-promotion -Wnull-dereference -Wimplicit-fallthrough)

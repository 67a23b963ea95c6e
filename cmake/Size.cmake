# Functions and data that nobody needs are left out of libraries and programs.
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(LINKER:--gc-sections)

# Code that runs seldom is compiled for size. For all other code, that would cost a quarter to two fifths more instructions (docs/footprint.md).
set(STATUSMANAGER_FOR_SIZE $<$<NOT:$<CONFIG:Debug>>:-Os>)

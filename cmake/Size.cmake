# Leaves unused functions and data out of libraries and programs.
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(LINKER:--gc-sections)

# For code that runs rarely. In all other code it would cost a quarter to two fifths more instructions (docs/footprint.md).
set(STATUSMANAGER_FOR_SIZE $<$<NOT:$<CONFIG:Debug>>:-Os>)

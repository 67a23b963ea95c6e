# STATUSMANAGER_SANITIZE is a list for -fsanitize=, for example "address,undefined" or "thread".
set(STATUSMANAGER_SANITIZE "" CACHE STRING "Sanitizers to build with, as for -fsanitize=")
if(STATUSMANAGER_SANITIZE)
    add_compile_options(-fsanitize=${STATUSMANAGER_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${STATUSMANAGER_SANITIZE})
endif()

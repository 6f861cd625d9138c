# Warning and sanitizer flags shared by every target of the project.
include(GNUInstallDirs)

if(TARSEL_MODBUS_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=address,undefined)
endif()
if(TARSEL_MODBUS_SANITIZE_THREAD)
    add_compile_options(-fsanitize=thread)
    add_link_options(-fsanitize=thread)
endif()

function(tarsel_apply_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
    if(TARSEL_MODBUS_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

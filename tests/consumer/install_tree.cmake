# Installs the runtime and devel components of a build tree into a fresh
# prefix, as a package would. -DBUILD_DIR=... -DPREFIX=...
file(REMOVE_RECURSE ${PREFIX})
foreach(component runtime devel)
    execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                            --component ${component}
                    RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "installing the ${component} component failed")
    endif()
endforeach()

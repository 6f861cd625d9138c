# Installs the build tree into one prefix, moves the installed tree to another
# directory, and builds and runs the consumer program against the moved tree
# with find_package and with pkg-config. No installed text file may name the
# prefix it was installed into: the CMake package and the .pc file find their
# prefix from where they lie, and the library finds its platform library
# beside itself.
#   -DBUILD_DIR -DWORK_DIR -DLIBDIR -DCONSUMER_PROJECT -DGENERATOR -DCXX_COMPILER [-DLAUNCHER]
file(REMOVE_RECURSE ${WORK_DIR})
set(installed ${WORK_DIR}/installed)
set(moved ${WORK_DIR}/moved)

function(run what)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${what} failed:\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

foreach(component runtime devel)
    run("install ${component}" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${installed}
        --component ${component})
endforeach()

file(GLOB_RECURSE files LIST_DIRECTORIES false ${installed}/*)
set(naming "")
foreach(file IN LISTS files)
    file(STRINGS ${file} hits REGEX "${installed}")
    if(hits)
        string(APPEND naming "\n  ${file}")
    endif()
endforeach()
if(NOT naming STREQUAL "")
    message(FATAL_ERROR "installed files name the prefix they were installed into:${naming}")
endif()

file(RENAME ${installed} ${moved})

set(common -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} -DCMAKE_BUILD_TYPE=Release)
if(LAUNCHER)
    list(APPEND common -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
endif()
foreach(mode find_package pkg-config)
    set(binary ${WORK_DIR}/${mode})
    run("configure the consumer (${mode})"
        ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${moved}/${LIBDIR}/pkgconfig
        ${CMAKE_COMMAND} -S ${CONSUMER_PROJECT} -B ${binary} ${common}
        -DTARSEL_CONSUMER_MODE=${mode} -DCMAKE_PREFIX_PATH=${moved})
    run("build the consumer (${mode})" ${CMAKE_COMMAND} --build ${binary})
    run("run the consumer (${mode})" ${binary}/consumer)
    if(NOT output MATCHES "consumer: [1-9][0-9]* passed, 0 failed")
        message(FATAL_ERROR "the consumer did not pass against the moved tree (${mode}):\n${output}")
    endif()
endforeach()
message(STATUS "the consumer passed against the moved tree with find_package and pkg-config")

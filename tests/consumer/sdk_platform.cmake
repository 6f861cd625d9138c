# Builds the library with TARSEL_MODBUS_PLATFORM=SDK against a stand-in SDK
# package (an installed host platform behind the SDK's target names), installs
# it, and builds and runs the consumer program against that install.
#   -DSOURCE_DIR -DWORK_DIR -DHOST_PREFIX -DLIBDIR -DCONSUMER_PROJECT
#   -DGENERATOR -DCXX_COMPILER [-DLAUNCHER]
file(REMOVE_RECURSE ${WORK_DIR})
# The stand-in's headers are the platform API the SDK provides, no more: the
# host platform's own headers (cdshost/) stay out of reach, so a library
# source that reaches past the seam does not compile here.
set(SDK_INCLUDE_DIR ${WORK_DIR}/sdk/include)
foreach(header cdsapi/cds_accessor.h cdsapi/in_band_accessor.h cdsapi/types.h
               kq/value.h kq/model.h conv/seconds_duration.h modbus/byte_order.h)
    get_filename_component(subdirectory ${header} DIRECTORY)
    file(COPY ${HOST_PREFIX}/include/tarsel_modbus/platform/${header}
         DESTINATION ${SDK_INCLUDE_DIR}/${subdirectory})
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/stand-in-sdk/CardPlatformSdkConfig.cmake.in
               ${WORK_DIR}/sdk/CardPlatformSdkConfig.cmake @ONLY)

set(common -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} -DCMAKE_BUILD_TYPE=Release
           -DCardPlatformSdk_DIR=${WORK_DIR}/sdk)
if(LAUNCHER)
    list(APPEND common -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
endif()

function(run what)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    message(STATUS "${what}:\n${output}")
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${what} failed")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

run("configure the library for the SDK platform"
    ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/library ${common} -DTARSEL_MODBUS_PLATFORM=SDK)
if(NOT output MATCHES "TARSEL_MODBUS_BUILD_TESTS needs the host platform: off")
    message(FATAL_ERROR "the tests were not turned off for the SDK platform")
endif()
run("build the library" ${CMAKE_COMMAND} --build ${WORK_DIR}/library --parallel 2)
foreach(component runtime devel)
    run("install ${component}" ${CMAKE_COMMAND} --install ${WORK_DIR}/library
        --prefix ${WORK_DIR}/prefix --component ${component})
endforeach()
if(EXISTS ${WORK_DIR}/prefix/include/tarsel_modbus/platform)
    message(FATAL_ERROR "platform headers were installed although the SDK provides them")
endif()
file(GLOB_RECURSE config ${WORK_DIR}/prefix/*/tarsel_modbus-config.cmake)
file(READ ${config} config_text)
if(NOT config_text MATCHES "find_dependency\\(CardPlatformSdk")
    message(FATAL_ERROR "the installed package does not look for the SDK")
endif()

run("configure the consumer"
    ${CMAKE_COMMAND} -S ${CONSUMER_PROJECT} -B ${WORK_DIR}/consumer ${common}
    -DTARSEL_CONSUMER_MODE=find_package -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
run("build the consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
# The stand-in's library is not beside the installed one: name its directory.
run("run the consumer"
    ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${HOST_PREFIX}/${LIBDIR} ${WORK_DIR}/consumer/consumer)
if(NOT output MATCHES "consumer: [1-9][0-9]* passed, 0 failed")
    message(FATAL_ERROR "the consumer did not pass")
endif()

# Installs the build, builds tests/consumer (a module and a program) against the installed
# package alone, installs the module beside kelvo's own and has the installed tool list it.
file(REMOVE_RECURSE ${PREFIX} ${WORK})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${PREFIX}
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK} -G Ninja
                        -DCMAKE_BUILD_TYPE=None "-DCMAKE_CXX_FLAGS=${FLAGS}"
                        "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}"
                        "-DCMAKE_MODULE_LINKER_FLAGS=${LINK_FLAGS}" -DCMAKE_PREFIX_PATH=${PREFIX}
                        -DCMAKE_INSTALL_PREFIX=${PREFIX} -DCMAKE_CXX_COMPILER=${COMPILER}
                        -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "configuring the consumer failed: ${out}${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK} --target install
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building the consumer failed: ${out}${err}")
endif()
execute_process(COMMAND ${PREFIX}/bin/kelvo modules WORKING_DIRECTORY /
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT out MATCHES "net\\.example\\.greeting\\.registry"
   OR NOT out MATCHES "g_greeting")
  message(FATAL_ERROR "the installed kelvo did not list the module (${rc}): ${out}${err}")
endif()
execute_process(COMMAND ${WORK}/greeting_host
                        ${PREFIX}/lib/kelvo/modules/greeting.module/greeting.so
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT out STREQUAL "hello\n")
  message(FATAL_ERROR "the consumer program failed (${rc}): ${out}${err}")
endif()
file(REMOVE_RECURSE ${PREFIX} ${WORK})

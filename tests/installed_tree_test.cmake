# Installs the build into a fresh prefix and runs the installed tool from another folder:
# it must find its module library and resources relative to its own executable.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${PREFIX}
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${PREFIX}/bin/kelvo modules WORKING_DIRECTORY /
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT out MATCHES "net\\.kelvo\\.render\\.ray"
   OR NOT out MATCHES "net\\.kelvo\\.render\\.intersectionclass\\.embreesingle")
  message(FATAL_ERROR "installed kelvo modules failed (${rc}): ${out}${err}")
endif()
if(NOT EXISTS ${PREFIX}/share/kelvo/resources/README.md)
  message(FATAL_ERROR "resources were not installed")
endif()
file(REMOVE_RECURSE ${PREFIX})

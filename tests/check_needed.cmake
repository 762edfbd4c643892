# The shared library needs nothing at run time but libc and the platform
# library: no C++ runtime, no libgcc_s, no libm.
execute_process(COMMAND readelf -d ${LIBRARY} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "readelf failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "Shared library: \\[[^]]*\\]" needed "${out}")
foreach(entry ${needed})
  string(REGEX REPLACE "Shared library: \\[(.*)\\]" "\\1" name "${entry}")
  if(NOT name MATCHES "^(libc\\.so\\.[0-9]+|libnuvcsock\\.so\\.[0-9]+)$")
    message(FATAL_ERROR "${LIBRARY} needs ${name} at run time")
  endif()
endforeach()
message(STATUS "run-time needs: ${needed}")

# Runs nexthop-sim on one scenario and checks its exit status and, when given, its exact output.
#   cmake -DSIM=<nexthop-sim> -DSCENARIO=<file> [-DEXPECTED_STATUS=N] [-DSTDOUT=<file>]
#         [-DSTDERR=<file>] -P RunScenario.cmake
# Run from the scenario's directory, so that FILE:LINE messages name the file as given.
cmake_minimum_required(VERSION 3.25)
if(NOT DEFINED EXPECTED_STATUS)
  set(EXPECTED_STATUS 0)
endif()
# No scenario runs the built-in demo.
set(_args)
if(SCENARIO)
  set(_args ${SCENARIO})
endif()
execute_process(COMMAND ${SIM} ${_args}
                RESULT_VARIABLE _status OUTPUT_VARIABLE _out ERROR_VARIABLE _err)
if(NOT _status STREQUAL EXPECTED_STATUS)
  message(FATAL_ERROR "nexthop-sim ${SCENARIO}: exit status ${_status}, expected "
                      "${EXPECTED_STATUS}\n--- stdout\n${_out}--- stderr\n${_err}")
endif()
foreach(_stream STDOUT STDERR)
  if(DEFINED ${_stream})
    file(READ "${${_stream}}" _expected)
    set(_actual "${_out}")
    if(_stream STREQUAL "STDERR")
      set(_actual "${_err}")
    endif()
    if(NOT "${_actual}" STREQUAL "${_expected}")
      message(FATAL_ERROR "nexthop-sim ${SCENARIO}: ${_stream} differs from ${${_stream}}\n"
                          "--- expected\n${_expected}--- actual\n${_actual}")
    endif()
  endif()
endforeach()

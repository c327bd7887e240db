# Writes a scenario with a generator program, then runs it as RunScenario.cmake does.
#   cmake -DGENERATOR=<program> -DGENERATOR_ARGS=<a;b;...> -DSIM=<nexthop-sim>
#         -DSCENARIO=<file to write> [RunScenario.cmake's options] -P RunGeneratedScenario.cmake
cmake_minimum_required(VERSION 3.25)
execute_process(COMMAND ${GENERATOR} ${GENERATOR_ARGS} RESULT_VARIABLE _status
                OUTPUT_FILE ${SCENARIO} ERROR_VARIABLE _err)
if(NOT _status EQUAL 0)
  message(FATAL_ERROR "${GENERATOR} ${GENERATOR_ARGS}: exit status ${_status}\n${_err}")
endif()
include(${CMAKE_CURRENT_LIST_DIR}/RunScenario.cmake)

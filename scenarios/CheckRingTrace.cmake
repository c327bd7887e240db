# Records a scenario's ring trace with nexthop-sim --ring and decodes it with ringlog-cat: the
# decoded text must hold the module's records, oldest first. With RING_BYTES, the file is
# recorded with --ring-size and must have exactly that size.
#   cmake -DSIM=<nexthop-sim> -DRINGLOG_CAT=<ringlog-cat> -DSCENARIO=<file> -DRING=<file>
#         [-DRING_BYTES=<n>] -P CheckRingTrace.cmake
cmake_minimum_required(VERSION 3.25)
set(_sizeArgs "")
if(RING_BYTES)
  set(_sizeArgs --ring-size ${RING_BYTES})
endif()
execute_process(COMMAND ${SIM} --ring ${RING} ${_sizeArgs} ${SCENARIO} RESULT_VARIABLE _status
                OUTPUT_QUIET ERROR_VARIABLE _err)
if(NOT _status EQUAL 0)
  message(FATAL_ERROR "nexthop-sim --ring ${RING} ${_sizeArgs} ${SCENARIO}: exit status "
                      "${_status}\n${_err}")
endif()
if(RING_BYTES)
  file(SIZE ${RING} _size)
  if(NOT _size EQUAL RING_BYTES)
    message(FATAL_ERROR "nexthop-sim --ring-size ${RING_BYTES}: the file has ${_size} bytes")
  endif()
endif()
execute_process(COMMAND ${RINGLOG_CAT} ${RING} RESULT_VARIABLE _status OUTPUT_VARIABLE _out
                ERROR_VARIABLE _err)
if(NOT _status EQUAL 0)
  message(FATAL_ERROR "ringlog-cat ${RING}: exit status ${_status}\n${_err}")
endif()
string(REGEX MATCH "^1 [^\n]*" _first "${_out}")
foreach(_needed "NexthopNhIndexResolverSm::handleInitialized()"
                "Resolve request added - vrf: red nexthop: 10.0.0.1 intfId: Ethernet1"
                "viaNexthop: 10.0.0.254, IntfId: Et1"
                "Publishing resolution for vrfName: red")
  string(FIND "${_out}" "${_needed}" _at)
  if(_at EQUAL -1)
    message(FATAL_ERROR "ringlog-cat ${RING}: no record with '${_needed}'\n${_out}")
  endif()
endforeach()
if(NOT _first)
  message(FATAL_ERROR "ringlog-cat ${RING}: the oldest record is not sequence 1\n${_out}")
endif()
# A file that is not a ring trace is refused with a message.
execute_process(COMMAND ${RINGLOG_CAT} ${SCENARIO} RESULT_VARIABLE _status OUTPUT_QUIET
                ERROR_VARIABLE _err)
if(_status EQUAL 0 OR NOT _err MATCHES "ringlog-cat: ")
  message(FATAL_ERROR "ringlog-cat ${SCENARIO}: accepted a file that is not a ring trace")
endif()

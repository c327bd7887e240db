# Installs the built package into a scratch prefix, then configures, builds and runs the consumer
# project against that prefix alone. Run with cmake -P and
#   -DBUILD_DIR=<our build tree> -DCONSUMER_DIR=<tests/install/consumer> -DWORK_DIR=<scratch dir>
#   [-DCONFIG=<build configuration>] [-DCXX_COMPILER=<compiler>]
#   [-DCXX_FLAGS=<compile flags>] [-DLINKER_FLAGS=<link flags>]
#   [-DPROGRAMS=<programs that must be installed in bin/>]
foreach(_var BUILD_DIR CONSUMER_DIR WORK_DIR)
  if(NOT DEFINED ${_var})
    message(FATAL_ERROR "RunInstallTest.cmake: -D${_var}=... is required")
  endif()
endforeach()

set(_prefix ${WORK_DIR}/prefix)
set(_consumer_build ${WORK_DIR}/consumer-build)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# Runs one step and stops the test with its output when it fails.
function(run_step name)
  execute_process(COMMAND ${ARGN}
                  RESULT_VARIABLE _result
                  OUTPUT_VARIABLE _output
                  ERROR_VARIABLE _output)
  if(NOT _result EQUAL 0)
    message(FATAL_ERROR "install test, step '${name}' failed (${_result}):\n${_output}")
  endif()
  message(STATUS "install test, step '${name}': ok")
endfunction()

set(_config_args)
if(CONFIG)
  set(_config_args --config ${CONFIG})
endif()
run_step(install ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${_prefix} ${_config_args})
foreach(_program ${PROGRAMS})
  if(NOT EXISTS ${_prefix}/bin/${_program} OR IS_DIRECTORY ${_prefix}/bin/${_program})
    message(FATAL_ERROR "install test: ${_prefix}/bin/${_program} was not installed")
  endif()
endforeach()

# The programs and their man pages, made from their --help (roff writes a dash as "\-").
function(expect_in_page tool text)
  file(READ ${_prefix}/share/man/man1/${tool}.1 _page)
  string(FIND "${_page}" "${text}" _at)
  if(_at EQUAL -1)
    message(FATAL_ERROR "install test: the man page of ${tool} lacks '${text}'")
  endif()
endfunction()
foreach(_tool nexthop-sim ringlog-cat)
  foreach(_file bin/${_tool} share/man/man1/${_tool}.1)
    if(NOT EXISTS ${_prefix}/${_file})
      message(FATAL_ERROR "install test: ${_file} was not installed")
    endif()
  endforeach()
  run_step(${_tool}-version ${_prefix}/bin/${_tool} --version)
  expect_in_page(${_tool} "\\-\\-help")
endforeach()
expect_in_page(nexthop-sim "\\-\\-ring\\-size")
expect_in_page(nexthop-sim "request add VRF ADDR INTF")
expect_in_page(ringlog-cat "\\-\\-unit")

set(_configure_args -S ${CONSUMER_DIR} -B ${_consumer_build} -DCMAKE_PREFIX_PATH=${_prefix})
if(CONFIG)
  list(APPEND _configure_args -DCMAKE_BUILD_TYPE=${CONFIG})
endif()
if(CXX_COMPILER)
  list(APPEND _configure_args -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
endif()
if(CXX_FLAGS)
  list(APPEND _configure_args "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
endif()
if(LINKER_FLAGS)
  list(APPEND _configure_args "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
endif()
run_step(configure ${CMAKE_COMMAND} ${_configure_args})
run_step(build ${CMAKE_COMMAND} --build ${_consumer_build} -j 2 ${_config_args})

find_program(_consumer fwd-install-consumer PATHS ${_consumer_build} ${_consumer_build}/${CONFIG}
             NO_DEFAULT_PATH REQUIRED)
run_step(run ${_consumer})

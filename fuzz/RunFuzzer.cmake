# Runs one libFuzzer binary for $ENV{FUZZ_SECONDS} seconds (default 60), growing its working
# corpus in WORK_DIR/corpus/NAME from the seed files SEEDS and the past failures in the directory
# REGRESSIONS. A crash, assertion, sanitizer report, leak, hang (10 s for one input) or memory
# blow-up (2 GB) fails the run and leaves the input in WORK_DIR/crashes/NAME-<kind>-<hash>.
# Run as: cmake -DFUZZER=bin -DNAME=n -DWORK_DIR=dir -DSEEDS=f1;f2 [-DREGRESSIONS=dir]
#         [-DDICT=f] [-DMAX_LEN=n] -P RunFuzzer.cmake
set(_seconds 60)
if(DEFINED ENV{FUZZ_SECONDS} AND NOT "$ENV{FUZZ_SECONDS}" STREQUAL "")
  set(_seconds "$ENV{FUZZ_SECONDS}")
endif()
if(NOT _seconds MATCHES "^[1-9][0-9]*$")
  message(FATAL_ERROR "FUZZ_SECONDS must be a positive number of seconds, not '${_seconds}'")
endif()

set(_corpus ${WORK_DIR}/corpus/${NAME})
set(_crashes ${WORK_DIR}/crashes)
set(_log ${WORK_DIR}/logs/${NAME}.log)
file(MAKE_DIRECTORY ${_corpus} ${_crashes} ${WORK_DIR}/logs)
# libFuzzer reads seeds from directories only: the seed files go into one of their own.
set(_seedDir ${WORK_DIR}/seeds/${NAME})
file(REMOVE_RECURSE ${_seedDir})
file(COPY ${SEEDS} DESTINATION ${_seedDir})
set(_seedDirs ${_seedDir})
if(REGRESSIONS AND IS_DIRECTORY ${REGRESSIONS})
  list(APPEND _seedDirs ${REGRESSIONS})
endif()

set(_args -max_total_time=${_seconds} -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
          -artifact_prefix=${_crashes}/${NAME}-)
if(DICT)
  list(APPEND _args -dict=${DICT})
endif()
if(MAX_LEN)
  list(APPEND _args -max_len=${MAX_LEN})
endif()

message(STATUS "${NAME}: fuzzing for ${_seconds} s, log in ${_log}")
execute_process(COMMAND ${FUZZER} ${_args} ${_corpus} ${_seedDirs}
                RESULT_VARIABLE _status OUTPUT_FILE ${_log} ERROR_FILE ${_log})

# libFuzzer's final statistics: "stat::number_of_executed_units: 123".
file(STRINGS ${_log} _stats REGEX "^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)")
foreach(_line ${_stats})
  message(STATUS "${NAME}: ${_line}")
endforeach()
file(GLOB _corpusFiles ${_corpus}/*)
list(LENGTH _corpusFiles _corpusSize)
message(STATUS "${NAME}: working corpus ${_corpusSize} inputs")

if(NOT _status EQUAL 0)
  file(STRINGS ${_log} _report REGEX "(ERROR|SUMMARY|Test unit written|fuzz check failed|assert)")
  string(JOIN "\n" _report ${_report})
  message(FATAL_ERROR "${NAME} failed (exit status ${_status}):\n${_report}\n"
                      "The input is in ${_crashes}/; replay it with ${FUZZER} FILE. Once "
                      "fixed, keep it in fuzz/regressions/${NAME}/.")
endif()

# Runs COMMAND (a list) and fails unless its exit code is exactly EXPECT; the command's output is
# passed through. Used by the command-line tests: 0 success, 1 the operation failed, 2 the command
# line was wrong.
execute_process(COMMAND ${COMMAND} RESULT_VARIABLE rc)
if(NOT "${rc}" STREQUAL "${EXPECT}")
  message(FATAL_ERROR "exit code ${rc}, expected ${EXPECT}")
endif()

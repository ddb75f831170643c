# Runs the tool to write its manual page and bash completion script.
execute_process(COMMAND ${TOOL} --generate-man OUTPUT_FILE ${MAN} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "telobackup-util --generate-man failed: ${rc}")
endif()
execute_process(COMMAND ${TOOL} --generate-bash-completion OUTPUT_FILE ${COMPLETION}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "telobackup-util --generate-bash-completion failed: ${rc}")
endif()

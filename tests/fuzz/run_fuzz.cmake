# Runs one fuzz target for a bounded time on a fresh copy of its seed corpus, so that
# what it adds never lands in the source tree. Crash inputs stay in WORK for a look.
# Arguments: FUZZER, CORPUS, WORK, SECONDS.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/corpus)
file(COPY ${CORPUS}/ DESTINATION ${WORK}/corpus)
execute_process(
  COMMAND ${FUZZER} -max_total_time=${SECONDS} -rss_limit_mb=2048 -timeout=25 -print_final_stats=1
          -artifact_prefix=${WORK}/ ${WORK}/corpus
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${result}); the input that failed is in ${WORK}")
endif()
file(REMOVE_RECURSE ${WORK}/corpus)

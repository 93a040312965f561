# The stream buffer's protocols, checked in every interleaving where the model checker is installed.
# Each "breaks" leaves out one step of the protocol: the checker must find an error then.
find_program(VS_SPIN spin)
find_program(VS_CC NAMES cc gcc clang)
if(NOT VS_SPIN OR NOT VS_CC)
  message(STATUS "spin or a C compiler is missing: the stream buffer's models are not checked")
  return()
endif()

function(check_model name model expected)
  add_test(NAME model.${name}
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check_model.sh ${VS_SPIN} ${VS_CC}
                   ${CMAKE_CURRENT_SOURCE_DIR}/${model}.pml ${expected} ${ARGN})
  set_tests_properties(model.${name} PROPERTIES LABELS model TIMEOUT 600)
endfunction()

check_model(frames_are_never_torn stream_buffer_frames 0)
check_model(frames_are_never_torn_with_two_readers stream_buffer_frames 0
            -DREADERS=2 -DDEATHS=1 -DPINS=1 -DNUMBERS=2)
foreach(broken NO_WRITER_FENCE NO_READER_FENCE NO_SECOND_LOOK REAP_THE_LIVING NO_REPAIR)
  check_model(frames_break_with_${broken} stream_buffer_frames 1 -D${broken})
endforeach()
check_model(waiting_readers_are_woken stream_buffer_wake 0)
foreach(broken MARK_GOES_BACK MARK_WITHOUT_LOOK NO_MARK)
  check_model(waiting_breaks_with_${broken} stream_buffer_wake 1 -D${broken})
endforeach()
check_model(slots_hold_one_value stream_buffer_slot 0)
foreach(broken ONE_CELL NO_COUNT NO_RECHECK)
  check_model(slots_break_with_${broken} stream_buffer_slot 1 -D${broken})
endforeach()

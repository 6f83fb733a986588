# Runs the generator into OUT and checks every file it writes against the committed copy in REF.
file(REMOVE_RECURSE ${OUT})
file(MAKE_DIRECTORY ${OUT})
execute_process(COMMAND ${MKUCODE} ${OUT} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "mkucode failed")
endif()
foreach(name atlinit.btm install.btl procinit camera.r2h)
  execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUT}/${name} ${REF}/${name}
                  RESULT_VARIABLE differs)
  if(NOT differs EQUAL 0)
    message(FATAL_ERROR "data/sim/${name} is not what mkucode writes: run the 'ucode' target")
  endif()
endforeach()

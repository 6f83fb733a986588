# cmake --install puts the driver in bin/, beside the library it loads from lib/, its XML where
# INDI clients list drivers (share/indi/) and the simulated camera it starts on in share/tvx/sim/;
# the installed driver names that camera's files as its definitions.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                RESULT_VARIABLE failed OUTPUT_QUIET)
if(failed)
  message(FATAL_ERROR "cmake --install failed")
endif()
foreach(file bin/indi_tvx_ccd share/indi/indi_tvx_ccd.xml share/tvx/sim/7100hw.def)
  if(NOT EXISTS ${PREFIX}/${file})
    message(FATAL_ERROR "${file} is not installed")
  endif()
endforeach()
file(READ ${PREFIX}/share/indi/indi_tvx_ccd.xml xml)
if(NOT xml MATCHES "<driver name=\"tvx CCD\">indi_tvx_ccd</driver>")
  message(FATAL_ERROR "the driver XML does not name indi_tvx_ccd:\n${xml}")
endif()
# The driver answers a client's getProperties on its own standard input, as indiserver asks it.
execute_process(COMMAND ${PREFIX}/bin/indi_tvx_ccd
                INPUT_FILE ${CMAKE_CURRENT_LIST_DIR}/get_properties.xml
                OUTPUT_VARIABLE said ERROR_QUIET TIMEOUT 20 WORKING_DIRECTORY ${PREFIX})
string(REGEX MATCH "name='HARDWARE'[^>]*>[^<]*" hardware "${said}")
if(NOT hardware MATCHES "${PREFIX}/share/tvx/sim/7100hw.def")
  message(FATAL_ERROR "the installed driver does not start on its own camera:\n${said}")
endif()
file(REMOVE_RECURSE ${PREFIX})

# Fails when the daemon loads a library that only its probe helpers should, or when the locale
# helper, run at every start-up, loads AppStream's:
#   cmake -DDAEMON=.../orvexd -DLOCALE_PROBE=.../orvexd-probe -P daemon_libraries_check.cmake
function(check_libraries binary where)
  execute_process(COMMAND ldd "${binary}" OUTPUT_VARIABLE libraries RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "ldd ${binary} failed: ${result}")
  endif()
  foreach(library ${ARGN})
    string(FIND "${libraries}" "${library}." found)
    if(NOT found EQUAL -1)
      message(FATAL_ERROR "${binary} loads ${library}, which belongs in ${where}:\n${libraries}")
    endif()
  endforeach()
endfunction()

check_libraries("${DAEMON}" "the probe helpers" libicui18n libappstream libglib-2.0 libgobject-2.0
                libgio-2.0 libxmlb libxml2)
check_libraries("${LOCALE_PROBE}" "orvexd-probe-applications" libappstream libgio-2.0 libxmlb)

# Fails when the daemon loads a library that only its probe helper should:
#   cmake -DDAEMON=.../orvexd -P daemon_libraries_check.cmake
execute_process(COMMAND ldd "${DAEMON}" OUTPUT_VARIABLE libraries RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "ldd ${DAEMON} failed: ${result}")
endif()
foreach(library libicui18n libappstream libglib-2.0 libgobject-2.0 libgio-2.0 libxmlb libxml2)
  string(FIND "${libraries}" "${library}." found)
  if(NOT found EQUAL -1)
    message(FATAL_ERROR "${DAEMON} loads ${library}, which belongs in orvexd-probe:\n${libraries}")
  endif()
endforeach()

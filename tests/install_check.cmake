# Installs the build into a staging directory (as a package build would, through DESTDIR) and
# checks that the daemon with its probe helper, its D-Bus activation file and its systemd user
# unit land where the session bus and systemd look for them, pointing at the installed daemon,
# and that the reference back-end comes with its default bag.
#   cmake -DBUILD_DIR=... -DSTAGE=... -DPREFIX=... -DBINDIR=... -DDATADIR=... \
#         -P install_check.cmake
file(REMOVE_RECURSE "${STAGE}")
execute_process(COMMAND ${CMAKE_COMMAND} -E env DESTDIR=${STAGE}
                        ${CMAKE_COMMAND} --install "${BUILD_DIR}"
                RESULT_VARIABLE result OUTPUT_QUIET)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${result}")
endif()

set(daemon "${STAGE}${BINDIR}/orvexd")
set(probe "${STAGE}${BINDIR}/orvexd-probe")  # looked for next to the daemon
set(applicationsProbe "${STAGE}${BINDIR}/orvexd-probe-applications")  # next to orvexd-probe
set(activation "${STAGE}${PREFIX}/share/dbus-1/services/com.zelmor.orvexd.service")
set(unit "${STAGE}${PREFIX}/lib/systemd/user/orvexd.service")
set(backend "${STAGE}${BINDIR}/orvex-backend")
set(bag "${STAGE}${DATADIR}/orvex-backend/bag.json")
set(ctl "${STAGE}${BINDIR}/orvexctl")
set(interfaces "${STAGE}${DATADIR}/dbus-1/interfaces/com.zelmor.orvexd.xml")
foreach(path "${daemon}" "${probe}" "${applicationsProbe}" "${activation}" "${unit}" "${backend}" "${bag}" "${ctl}" "${interfaces}")
  if(NOT EXISTS "${path}")
    message(FATAL_ERROR "not installed: ${path}")
  endif()
endforeach()

file(READ "${activation}" text)
foreach(line "[D-BUS Service]" "Name=com.zelmor.orvexd" "Exec=${BINDIR}/orvexd"
        "SystemdService=orvexd.service")
  string(FIND "${text}" "${line}\n" found)
  if(found EQUAL -1)
    message(FATAL_ERROR "activation file lacks '${line}':\n${text}")
  endif()
endforeach()

file(READ "${unit}" text)
foreach(line "Type=dbus" "BusName=com.zelmor.orvexd" "ExecStart=${BINDIR}/orvexd")
  string(FIND "${text}" "${line}\n" found)
  if(found EQUAL -1)
    message(FATAL_ERROR "systemd unit lacks '${line}':\n${text}")
  endif()
endforeach()
file(REMOVE_RECURSE "${STAGE}")

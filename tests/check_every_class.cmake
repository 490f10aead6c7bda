cmake_minimum_required(VERSION 3.20)
# Every registered class with a ProgID, through the module as a host reaches it:
# described at design time, and where it runs in process, created and described
# live. Each ends with a catalogue or a status; none may take the process down
# or hang it (the test's time limit). Run with -DCOMTOOL=...
execute_process(COMMAND ${COMTOOL} classes --describe --live
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE code)
if(NOT code EQUAL 0)
  message(FATAL_ERROR "comtool classes --describe --live: exit ${code}\n${err}")
endif()
# Classes whose servers make noises of their own on stderr (sound devices) are
# fine; reports of Wine's heap checking are not.
if(err MATCHES "(warn|err):heap")
  message(FATAL_ERROR "heap report:\n${err}")
endif()
string(REPLACE "\r" "" out "${out}")

function(expect_class name part members_regex)
  string(REGEX MATCH "\n${name}\n[^\n]*\n    catalogue: [^\n]*(\n    live: [^\n]*)?" block "\n${out}")
  if(NOT block MATCHES "\n    ${part}: ${members_regex}")
    message(FATAL_ERROR "${name}: no ${part} matching '${members_regex}' in '${block}'")
  endif()
endfunction()
# ADO's command: the platform faults inside the description of one member of
# its Fields interface; the rest is described.
expect_class("ADODB\\.Command" "catalogue" "[1-9][0-9]* members")
# A library registered for 64 bits only, whose highest version lacks the class.
expect_class("Msxml2\\.DOMDocument\\.3\\.0" "catalogue" "[1-9][0-9]* members")
expect_class("Scripting\\.Dictionary" "live" "[1-9][0-9]* members")
expect_class("VBScript\\.RegExp" "catalogue" "status NoTypeInfo: Could not load type library")

# Each class ended with a status, and enough of them with catalogues to say the
# walk reached the whole registry.
string(REGEX MATCH "\n([0-9]+) classes\n" counted "${out}")
set(classes ${CMAKE_MATCH_1})
string(REGEX MATCH "\ncatalogue: [^\n]*Ok ([0-9]+)" described "${out}")
set(catalogues ${CMAKE_MATCH_1})
string(REGEX MATCH "\nlive: [^\n]*Ok ([0-9]+)" opened "${out}")
set(live ${CMAKE_MATCH_1})
if(classes LESS 200 OR catalogues LESS 100 OR live LESS 80)
  message(FATAL_ERROR "too few: ${classes} classes, ${catalogues} catalogues, ${live} live")
endif()

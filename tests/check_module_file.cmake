cmake_minimum_required(VERSION 3.20)
# The module file as a host sees it: exactly the eight exports by name, and
# imports from system DLLs only (the run-times are linked in).
execute_process(COMMAND ${OBJDUMP} -p ${MODULE} OUTPUT_VARIABLE dump RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "objdump failed on ${MODULE}")
endif()

string(REGEX MATCH "\\[Ordinal/Name Pointer\\] Table[^\n]*\n(([ \t]+\\[[ 0-9]+\\][^\n]*\n)+)" table "${dump}")
string(REGEX MATCHALL "\\] [A-Za-z_][A-Za-z0-9_]*" names "${CMAKE_MATCH_1}")
string(REPLACE "] " "" names "${names}")
list(SORT names)
set(expected CleanUpHandler FreeHandlerObject GetHandlerInfo GetHandlerObject GetHandlerVersion
             InitHandler ProcessIdle SetEnvironment)
if(NOT names STREQUAL expected)
  message(FATAL_ERROR "exports are '${names}', expected '${expected}'")
endif()

# No exports by ordinal only either: the address table holds exactly the eight.
string(REGEX MATCH "Export Address Table[ \t]+([0-9a-fA-F]+)\n" count "${dump}")
if(NOT CMAKE_MATCH_1 STREQUAL "00000008")
  message(FATAL_ERROR "the export address table holds ${CMAKE_MATCH_1} entries")
endif()

string(REGEX MATCHALL "DLL Name: [^\n]+" imports "${dump}")
set(allowed kernel32.dll user32.dll advapi32.dll ole32.dll oleaut32.dll msvcrt.dll)
foreach(import IN LISTS imports)
  string(REPLACE "DLL Name: " "" dll "${import}")
  string(TOLOWER "${dll}" dll)
  if(NOT dll IN_LIST allowed AND NOT dll MATCHES "^api-ms-win-crt-")
    message(FATAL_ERROR "the module imports ${dll}, which is no system DLL")
  endif()
endforeach()
message(STATUS "exports: ${names}")

cmake_minimum_required(VERSION 3.20)
# comtool through its Linux wrapper, as a user runs it.

function(run_tool expected_exit)
  execute_process(COMMAND ${COMTOOL} ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE code)
  if(NOT code EQUAL expected_exit)
    message(FATAL_ERROR "comtool ${ARGN}: exit ${code}, expected ${expected_exit}\nstdout: ${out}\nstderr: ${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
  set(err "${err}" PARENT_SCOPE)
endfunction()

function(expect_json document expected)
  string(JSON value GET "${out}" ${document})
  if(NOT value STREQUAL "${expected}")
    message(FATAL_ERROR "JSON ${document}: '${value}', expected '${expected}'\n${out}")
  endif()
endfunction()

# No arguments: the module's info and an example identity, as text.
run_tool(0)
foreach(line "name:              COM/DCOM Object Handler" "version:           0x00020000"
             "object name:       Scripting.Dictionary" "attribute:         Host = alpha")
  string(FIND "${out}" "${line}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "default run lacks '${line}':\n${out}")
  endif()
endforeach()

run_tool(0 --json info)
expect_json("typeName" "COM")
expect_json("versionNumber" "131072")
expect_json("description" "Meta object native object handler plugin for COM/DCOM.")

run_tool(0 --json identity "COM://x? a = 1 ?flag?a=b=c")
expect_json("scheme" "COM")
expect_json("objectName" "x")
expect_json("baseText" "COM://x")
expect_json("attributes;1;value" "b=c")
expect_json("complete" "ON")
expect_json("classIdName" "OFF")

run_tool(0 --json identity "COM://EE09B103-97E0-11CF-978F-00A02463E06F")
expect_json("classIdName" "ON")

run_tool(0 identity "no delimiter" --json)
expect_json("complete" "OFF")
expect_json("scheme" "")

# describe: rows and catalogue of platform classes at design time.
run_tool(0 --json describe COM://Scripting.Dictionary)
expect_json("status;name" "Ok")
expect_json("object;registered" "ON")
expect_json("object;rows;0;label" "Class ID")
foreach(key "Invoke:Add" "Get:Count" "Get:Item" "Set:Item")
  string(FIND "${out}" "\"key\": \"${key}\"" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "Scripting.Dictionary lacks ${key}:\n${out}")
  endif()
endforeach()

run_tool(0 describe COM://MSXML2.DOMDocument.6.0)
string(FIND "${out}" "Invoke:loadXML  (loadXML, Invoke)  returns Bool [VT_BOOL]" at)
if(at EQUAL -1)
  message(FATAL_ERROR "DOMDocument: no loadXML with a Bool result:\n${out}")
endif()

# A class whose server file holds another library than its own can't be described,
# and the tool says why: the status and the module's error text.
run_tool(1 --json describe COM://VBScript.RegExp)
expect_json("status;name" "NoTypeInfo")
expect_json("errorText" "Could not load type library")
run_tool(1 describe COM://No.Such.Class)
string(FIND "${out}" "cannot describe:   status NoTypeInfo (5): Could not load type library" at)
if(at EQUAL -1)
  message(FATAL_ERROR "no reason given for an unknown class:\n${out}")
endif()

# Bad arguments: one line on stderr, exit 2. A module that can't load: exit 1.
foreach(args "--bogus" "identity" "frobnicate" "info;extra")
  run_tool(2 ${args})
  string(STRIP "${err}" line)
  if(line STREQUAL "" OR line MATCHES "\n")
    message(FATAL_ERROR "comtool ${args}: expected one line on stderr, got '${err}'")
  endif()
endforeach()
run_tool(1 --module Z:\\nowhere\\missing.dll info)

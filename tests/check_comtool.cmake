cmake_minimum_required(VERSION 3.20)
# comtool through its Linux wrapper, as a user runs it.

# Each run would otherwise start the prefix's server and its services, which
# hold the output pipes, so each run would wait for them to end. One server,
# kept a few seconds past the last run, with services that write to no pipe of
# ours, serves every run. If the prefix's server already runs, it serves.
execute_process(COMMAND ${CMAKE_COMMAND} -E env WINEPREFIX=${WINEPREFIX} wineserver -p5
                INPUT_FILE /dev/null OUTPUT_FILE /dev/null ERROR_FILE /dev/null)
execute_process(COMMAND ${COMTOOL} info INPUT_FILE /dev/null OUTPUT_FILE /dev/null ERROR_FILE /dev/null)

function(run_tool expected_exit)
  execute_process(COMMAND ${COMTOOL} ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE code)
  # Once in hundreds of runs on a loaded machine, Wine kills a process with
  # SIGKILL while it ends, after the tool has flushed all its output. That is
  # the platform's exit, not the tool's work: one more run decides.
  if(code STREQUAL "Subprocess killed")
    message(WARNING "comtool ${ARGN}: killed while ending, run again")
    execute_process(COMMAND ${COMTOOL} ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE code)
  endif()
  if(NOT code EQUAL expected_exit)
    message(FATAL_ERROR "comtool ${ARGN}: exit ${code}, expected ${expected_exit}\nstdout: ${out}\nstderr: ${err}")
  endif()
  # Under ./build.sh test-heap, Wine reports double frees and overruns on stderr.
  if(code EQUAL 0 AND NOT err STREQUAL "")
    message(FATAL_ERROR "comtool ${ARGN}: succeeded, but said on stderr: ${err}")
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

# --- call and describe --live: live objects of the platform ---

function(expect_out fragment)
  string(FIND "${out}" "${fragment}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "output lacks '${fragment}':\n${out}")
  endif()
endfunction()

# One line on stderr, holding the fragment.
function(expect_error_line fragment)
  string(STRIP "${err}" line)
  if(line STREQUAL "" OR line MATCHES "\n")
    message(FATAL_ERROR "expected one line on stderr, got '${err}'")
  endif()
  string(FIND "${line}" "${fragment}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "stderr lacks '${fragment}': '${line}'")
  endif()
endfunction()

# Rows "a.0.b=value" against the JSON output; "=<null>" asks for a JSON null.
function(expect_json_rows)
  foreach(row IN LISTS ARGN)
    string(FIND "${row}" "=" cut)
    string(SUBSTRING "${row}" 0 ${cut} path)
    math(EXPR rest "${cut} + 1")
    string(SUBSTRING "${row}" ${rest} -1 expected)
    string(REPLACE "." ";" path "${path}")
    if(expected STREQUAL "<null>")
      string(JSON value ERROR_VARIABLE problem TYPE "${out}" ${path})
      set(expected "NULL")
    else()
      string(JSON value ERROR_VARIABLE problem GET "${out}" ${path})
    endif()
    if(NOT problem STREQUAL "NOTFOUND" OR NOT value STREQUAL expected)
      message(FATAL_ERROR "JSON ${row}: got '${value}' ${problem}\n${out}")
    endif()
  endforeach()
endfunction()

# Scripting.Dictionary: arguments typed from the catalogue (a Variant key goes as
# text, CompareMode is an enumeration that takes its names), explicit types
# that come back as what they went in as, and the record of every call.
run_tool(0 --json call COM://Scripting.Dictionary
  "Set:CompareMode TextCompare" "Invoke:Add apple 3" "Invoke:Exists APPLE" "Get:Count" "Get:Item apple"
  "Set:Item apple \"five and a half\"" "Get:Item Apple" "Get:CompareMode"
  "Invoke:Add int:1 real:2.5" "Invoke:Exists int:1" "Invoke:Exists 1" "Get:Item int:1"
  "Invoke:Add cy cy:12.50" "Get:Item cy" "Invoke:Add d date:2024-01-02" "Get:Item d"
  "Invoke:Add ch char:A" "Get:Item ch" "Invoke:Add b bool:true" "Get:Item b" "Invoke:Add n null" "Get:Item n")
expect_json_rows(
  "open.name=Ok" "catalogue.name=Ok" "failure=" "handles=0" "handlersInUse=0"
  "calls.0.key=Set:CompareMode" "calls.0.typedBy=catalogue" "calls.0.arguments.0.metaType=Enum"
  "calls.0.arguments.0.text=1" "calls.0.arguments.0.name=CompareMode" "calls.0.result=<null>"
  "calls.1.status.name=Ok" "calls.1.status.code=0" "calls.1.record.code=1"
  "calls.1.record.description=COM Method call succeeded" "calls.1.record.source="
  "calls.1.arguments.1.metaType=String" "calls.1.arguments.1.signature=VT_VARIANT|VT_PTR" "calls.1.arguments.1.text=3"
  "calls.2.result.text=true" "calls.2.result.metaType=Bool"
  "calls.3.result.text=1" "calls.3.result.metaType=Int" "calls.3.result.class=CMetaObjectInt"
  "calls.4.result.text=3" "calls.4.result.class=CMetaObjectString"
  "calls.6.result.text=five and a half"
  "calls.7.result.text=1" "calls.7.result.enumName=TextCompare"
  "calls.8.arguments.0.signature=VT_I4" "calls.8.arguments.1.signature=VT_R8"
  "calls.9.result.text=true" "calls.10.result.text=false"
  "calls.11.result.metaType=Real" "calls.11.result.text=2.500000"
  "calls.12.arguments.1.signature=VT_CY" "calls.13.result.metaType=Currency" "calls.13.result.text=12.5"
  "calls.14.arguments.1.signature=VT_DATE" "calls.15.result.class=CMetaObjectDate"
  "calls.16.arguments.1.signature=VT_UI1" "calls.17.result.metaType=Char" "calls.17.result.text=A"
  "calls.18.arguments.1.signature=VT_BOOL" "calls.19.result.text=true"
  "calls.20.arguments.1.metaType=Object" "calls.21.result.metaType=Unknown")
string(JSON date GET "${out}" calls 15 result text)
if(NOT date MATCHES "2024")
  message(FATAL_ERROR "a date that went in as 2024-01-02 came back as '${date}'")
endif()

# Scripting.FileSystemObject, as text: a returned folder becomes @1 and its
# properties are read through it; a file's date comes back as a date. (Under
# Wine a folder answers its dates with E_NOTIMPL.)
run_tool(0 call COM://Scripting.FileSystemObject "Invoke:GetFolder C:\\windows" "@1 Get:Name"
  "Invoke:GetFile C:\\windows\\win.ini" "@2 Get:DateLastModified" "@2 Get:Size")
expect_out("catalogue:         Ok (0)")
expect_out("> Invoke:GetFolder C:\\windows\nstatus:            Ok (0)\nrecord:            code 1, source \"\", description \"COM Method call succeeded\"\nresult:            @1  [Object, CMetaObjectObject]")
expect_out("> @1 Get:Name\nstatus:            Ok (0)\nrecord:            code 1, source \"\", description \"COM Method call succeeded\"\nresult:            \"windows\"  [String, CMetaObjectString]")
expect_out("result:            @2  [Object, CMetaObjectObject]")
expect_out("  [Date, CMetaObjectDate]")

# MSXML: handles as targets and as arguments, a null object in and out,
# guessed arguments where a returned object has no catalogue.
run_tool(0 --json call COM://MSXML2.DOMDocument.6.0 "Invoke:loadXML <root/>" "Get:documentElement"
  "@1 Get:nodeName" "Invoke:createElement child" "@1 Invoke:insertBefore @2 null" "@1 Invoke:setAttribute n 5"
  "@1 Invoke:getAttribute n" "@1 Invoke:selectSingleNode missing" "Get:xml")
expect_json_rows(
  "calls.0.result.text=true" "calls.1.result.handle=@1" "calls.1.result.text=@1"
  "calls.2.target=@1" "calls.2.typedBy=guess" "calls.2.result.text=root"
  "calls.3.result.handle=@2" "calls.4.arguments.0.handle=@2" "calls.4.arguments.1.text=null"
  "calls.4.result.handle=@3" "calls.5.arguments.1.metaType=Int" "calls.5.arguments.1.signature=VT_I4"
  "calls.6.result.text=5" "calls.7.result.metaType=Object" "calls.7.result.handle=<null>"
  "handles=3" "handlersInUse=0")
string(JSON xml GET "${out}" calls 8 result text)
if(NOT xml MATCHES "<root n=\"5\">[\r\n\t]*<child/>")
  message(FATAL_ERROR "the document did not take the calls: '${xml}'")
endif()

# VBScript.RegExp by class and by moniker. The identity of the moniker run names
# no class, so its catalogue can only have come from the live object.
foreach(way "COM://VBScript.RegExp" "COM://RegExpByMoniker;--moniker;new:VBScript.RegExp")
  run_tool(0 --json call ${way} "Set:Pattern ^a.c$" "Invoke:Test abc" "Invoke:Test abd" "Get:Pattern")
  expect_json_rows("catalogue.name=Ok" "calls.0.typedBy=catalogue" "calls.1.result.text=true"
                   "calls.2.result.text=false" "calls.3.result.text=^a.c$")
endforeach()

# In/out parameters as written back: a script's by-reference arguments, which no
# catalogue describes, marked with ref:.
run_tool(0 --json call COM://MSScriptControl.ScriptControl "Set:Language VBScript"
  "Invoke:AddCode \"Sub Twice(ByRef n, ByRef note) : n = n * 2 : note = \\\"doubled \\\" & note : End Sub\""
  "Get:CodeObject" "@1 Invoke:Twice ref:21 ref:once")
expect_json_rows("calls.3.arguments.0.text=21" "calls.3.arguments.0.signature=VT_VARIANT|VT_BYREF"
                 "calls.3.outParams.0.direction=inout" "calls.3.outParams.0.text=42"
                 "calls.3.outParams.1.index=1" "calls.3.outParams.1.text=doubled once" "handlersInUse=0")

# The call fixture: out and in/out parameters of its catalogue as written back
# (an out parameter left off the end gets its item), an enumeration named on the
# way in and on the way out, objects out and swapped in/out, a record result.
run_tool(0 --json call COM://ComHandlerTest.CallFixture "Invoke:RefI4 41" "Invoke:OutBstr" "Invoke:RefColour Green"
  "Invoke:RefDate 2024-01-02" "Invoke:OutDispatch" "@1 Get:Id" "Invoke:RefDispatch @1" "Invoke:ChildId @2"
  "Invoke:MakePoint 3 4" "Invoke:RefVariant abc" "Set:Cell 1 2 5" "Get:Cell 1 2")
expect_json_rows(
  "calls.0.outParams.0.direction=inout" "calls.0.outParams.0.name=value" "calls.0.outParams.0.text=42"
  "calls.0.outParams.0.signature=VT_I4|VT_PTR" "calls.0.arguments.0.text=41"
  "calls.1.arguments.0.direction=out" "calls.1.outParams.0.text=out text" "calls.1.result=<null>"
  "calls.2.arguments.0.text=2" "calls.2.outParams.0.text=7" "calls.2.outParams.0.enumName=Blue"
  "calls.3.outParams.0.class=CMetaObjectDate"
  "calls.4.outParams.0.handle=@1" "calls.4.outParams.0.signature=VT_DISPATCH|VT_PTR" "calls.5.result.metaType=Int"
  "calls.6.arguments.0.handle=@1" "calls.6.outParams.0.handle=@2" "calls.7.typedBy=catalogue"
  "calls.7.arguments.0.handle=@2" "calls.7.result.metaType=Int"
  "calls.8.result.metaType=Struct" "calls.8.result.members.0.name=x" "calls.8.result.members.0.text=3"
  "calls.8.result.members.1.name=y" "calls.8.result.members.1.text=4"
  "calls.9.outParams.0.text=abc!" "calls.11.result.text=5" "handles=2" "handlersInUse=0")
string(JSON date GET "${out}" calls 3 outParams 0 text)
string(JSON sent GET "${out}" calls 3 arguments 0 text)
if(NOT sent STREQUAL "2024-01-02" OR date STREQUAL sent OR NOT date MATCHES "2024")
  message(FATAL_ERROR "RefDate: sent '${sent}', came back as '${date}'")
endif()

# A failed call writes nothing back, and its record holds the object's texts.
run_tool(1 --json call COM://ComHandlerTest.CallFixture "Invoke:FailWithGarbage")
expect_json_rows("calls.0.record.source=CallFixture.FailWithGarbage" "calls.0.arguments.1.text=0.000000")
string(JSON count LENGTH "${out}" calls 0 outParams)
if(NOT count EQUAL 0)
  message(FATAL_ERROR "a failed call showed out parameters:\n${out}")
endif()
expect_error_line("Invoke:FailWithGarbage failed: status InvokeFailed (7), code 65535, source \"CallFixture.FailWithGarbage\", description \"failed after writing its out-parameters\"")
run_tool(1 call COM://ComHandlerTest.CallFixture "Invoke:NotImplemented")
expect_error_line("Invoke:NotImplemented failed: status InvokeFailed (7), code 1, source \"CallFixture.NotImplemented\", description \"not implemented on purpose\"")

# What can't be described at design time can be once the object runs.
run_tool(0 --json describe --live COM://VBScript.RegExp)
expect_json_rows("live=ON" "open.name=Ok" "status.name=Ok" "object.registered=ON")
foreach(key "Invoke:Test" "Set:Pattern" "Get:Global")
  expect_out("\"key\": \"${key}\"")
endforeach()
run_tool(1 describe --live COM://No.Such.Class)
expect_out("cannot open:       status NoObject (3)")
run_tool(2 describe --moniker new:VBScript.RegExp COM://VBScript.RegExp)

# A session replayed from standard input: comments and blank lines skipped,
# optional arguments left out with -, an enumeration named on a second object.
file(WRITE ${WORK_DIR}/comtool-replay.txt [[
# write a line, read it back, remove the file
Invoke:CreateTextFile C:\windows\temp\comtool-replay.txt true
@1 Invoke:WriteLine "hello there"

   @1 Invoke:Close
Invoke:OpenTextFile C:\windows\temp\comtool-replay.txt ForReading - -
@2 Invoke:ReadLine
@2 Invoke:Close
Invoke:DeleteFile C:\windows\temp\comtool-replay.txt -
Invoke:FileExists C:\windows\temp\comtool-replay.txt
]])
execute_process(COMMAND ${COMTOOL} --json call COM://Scripting.FileSystemObject -
  INPUT_FILE ${WORK_DIR}/comtool-replay.txt OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE code)
if(NOT code EQUAL 0 OR NOT err STREQUAL "")
  message(FATAL_ERROR "replay: exit ${code}\n${out}\n${err}")
endif()
expect_json_rows("calls.2.call=@1 Invoke:Close" "calls.3.arguments.1.metaType=Enum" "calls.3.arguments.1.text=1"
                 "calls.3.arguments.2.omitted=ON" "calls.4.result.text=hello there" "calls.7.result.text=false"
                 "handlersInUse=0")
string(JSON count LENGTH "${out}" calls)
if(NOT count EQUAL 8)
  message(FATAL_ERROR "replay ran ${count} calls, expected 8:\n${out}")
endif()

# The run stops at the first call that fails: the third never runs.
run_tool(1 --json call COM://Scripting.Dictionary "Invoke:Add a 1" "Invoke:Add a 1" "Get:Count")
expect_json_rows("calls.1.status.name=InvokeFailed" "calls.1.record.code=65535" "handlersInUse=0")
string(JSON count LENGTH "${out}" calls)
if(NOT count EQUAL 2)
  message(FATAL_ERROR "calls went on after a failure:\n${out}")
endif()
expect_error_line("Invoke:Add failed: status InvokeFailed (7), code 65535, source \"\", description \"\"")

# Bad input: one line on stderr each. A call the object or the module refuses
# exits 1; a call that can't be built from its text exits 2, before anything runs.
set(bad_calls
  "1|Invoke:Nope failed: status InvokeFailed (7), code 0, source \"\", description \"\" (no such member in the catalogue)|Invoke:Nope"
  "1|Set:CompareMode failed: status InvokeFailed (7), code 65535, source \"Parameter Validation Error\", description \"Illegal enum value\"|Set:CompareMode 7"
  "2|argument 1 (CompareMode): \"Nope\" is no value of CompareMethod (BinaryCompare, TextCompare, DatabaseCompare)|Set:CompareMode Nope"
  "2|Invoke:Add 1 2 3: takes 2 arguments, 3 given|Invoke:Add 1 2 3"
  "2|Invoke:Add 1: argument 2 (Item) is missing|Invoke:Add 1"
  "2|argument 2 (Item): the parameter is not optional|Invoke:Add a -"
  "2|argument 1 (Key): \"notadate\" is no date|Invoke:Add date:notadate 1"
  "2|argument 1 (Key): \"12x\" is no 32-bit integer|Invoke:Add int:12x 1"
  "2|argument 1 (Key): ref: takes a value, not an object or a left-out argument|Invoke:Add ref:null 1"
  "2|there is no handle @4|@4 Get:Count"
  "2|Get:Item \"apple: unterminated quote|Invoke:Add a 1|Get:Item \"apple"
  "2|Count: a call begins with a method key such as Invoke:Add or Get:Count|Count")
foreach(row IN LISTS bad_calls)
  string(REPLACE "|" ";" fields "${row}")
  list(POP_FRONT fields expected_exit fragment)
  run_tool(${expected_exit} call COM://Scripting.Dictionary ${fields})
  expect_error_line("${fragment}")
endforeach()
# A call line that can't be read stops the run before the object is made.
if(NOT out STREQUAL "")
  message(FATAL_ERROR "a call that can't be read still opened the object:\n${out}")
endif()

run_tool(1 call COM://No.Such.Class Get:Count)
expect_error_line("cannot open COM://No.Such.Class: status NoObject (3)")
run_tool(1 call --running COM://Scripting.Dictionary Get:Count)
expect_error_line("cannot open COM://Scripting.Dictionary: status NoObject (3)")

# --- classes: what is installed ---

# A part of a ProgID, with every field of the row.
run_tool(0 --json classes scripting.dictionary)
expect_json_rows("count=1" "classes.0.progId=Scripting.Dictionary" "classes.0.classId={EE09B103-97E0-11CF-978F-00A02463E06F}"
                 "classes.0.threadingModel=Apartment" "classes.0.serverKind=inproc" "classes.0.version=1.0"
                 "classes.0.typeLibrary={420B2830-E718-11CF-893D-00A0C9054228}" "classes.0.typeLibraryFound=ON")
string(JSON server GET "${out}" classes 0 server)
if(NOT server MATCHES "scrrun\\.dll$")
  message(FATAL_ERROR "Scripting.Dictionary served by '${server}'")
endif()
# The fixture classes, registered by the test's setup, are found by the wildcard.
run_tool(0 --json classes "comhandlertest.c*fixture")
expect_json_rows("count=2" "classes.0.progId=ComHandlerTest.CallFixture" "classes.0.threadingModel=Both"
                 "classes.1.progId=ComHandlerTest.CollectionFixture" "classes.1.typeLibraryFound=ON")
# A wildcard matches the whole name: DOMDocument.6.0 and its kin, not DOMDocument
# or DOMDocument.2.6.
run_tool(0 --json classes "MSXML2.DOMDocument.?.0")
expect_json_rows("count=3" "classes.2.progId=Msxml2.DOMDocument.6.0")
run_tool(0 classes EE09B103-97E0)
expect_out("Scripting.Dictionary\n    class id {EE09B103-97E0-11CF-978F-00A02463E06F}, inproc server ")
expect_out("threading Apartment, type library yes\n1 class\n")
# Nothing found is a failure a script can test for, with an empty list.
run_tool(1 --json classes no.such.thing*)
expect_json_rows("count=0" "pattern=no.such.thing*")
string(JSON count LENGTH "${out}" classes)
if(NOT count EQUAL 0)
  message(FATAL_ERROR "classes found for a pattern that matches nothing:\n${out}")
endif()
# Every class of the prefix, in well under the test's time.
string(TIMESTAMP started "%s")
run_tool(0 --json classes)
string(TIMESTAMP finished "%s")
string(JSON count GET "${out}" count)
math(EXPR took "${finished} - ${started}")
if(count LESS 100 OR took GREATER 10)
  message(FATAL_ERROR "all classes: ${count} in ${took} s")
endif()

# --- walk and the tour: collections and arrays through the module ---

# A Dictionary walks its keys. The calls go to the Dictionary, since they return
# no object; skip and max cut the walk, and the count stays the whole.
run_tool(0 --json walk COM://Scripting.Dictionary "Invoke:Add a 1" "Invoke:Add b 2" "Invoke:Add c 3")
expect_json_rows("collection=" "enumerator.name=Ok" "count=3" "countStatus.name=Ok" "walkStatus.name=Ok"
                 "reachedEnd=ON" "elements.0.index=0" "elements.0.text=a" "elements.0.metaType=String"
                 "elements.2.text=c" "handlersInUse=0")
run_tool(0 --json walk COM://Scripting.Dictionary "Invoke:Add a 1" "Invoke:Add b 2" "Invoke:Add c 3" --skip 1 --max 1)
expect_json_rows("count=3" "skipStatus.name=Ok" "elements.0.index=1" "elements.0.text=b" "reachedEnd=OFF")
string(JSON count LENGTH "${out}" elements)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "--skip 1 --max 1 walked ${count} elements:\n${out}")
endif()
run_tool(0 walk COM://Scripting.Dictionary "Invoke:Add a 1" "Invoke:Add b 2" --skip 5)
expect_out("count:             2\nskipped:           5\n")

# A chain of calls: GetFolder to the FileSystemObject, Files to the folder. The
# files are objects with handles, and --each calls each of them.
run_tool(0 --json walk COM://Scripting.FileSystemObject "Invoke:GetFolder C:\\windows" "Get:Files" --each Get:Name)
expect_json_rows("calls.1.target=@1" "collection=@2" "elements.0.metaType=Object" "elements.0.handle=@3"
                 "elements.0.calls.0.target=@3" "handlersInUse=0")
string(JSON count GET "${out}" count)
string(JSON walked LENGTH "${out}" elements)
if(count LESS 1 OR NOT count EQUAL walked OR NOT out MATCHES "\"text\": \"win\\.ini\"")
  message(FATAL_ERROR "the files of C:\\windows: count ${count}, walked ${walked}\n${out}")
endif()

# MSXML: childNodes of the document element; a last bare handle walks that
# object after a call on another.
run_tool(0 walk COM://MSXML2.DOMDocument.6.0 "Invoke:loadXML <r><a/><b/>text</r>" "Get:documentElement"
  "Get:childNodes" --each Get:nodeName)
# (A node list has no count at dispatch id 1, and under Wine its enumerator
# can't be copied to count by walking, so its count reads 0; the walk still
# gives every node.)
expect_out("collection:        @2\n")
expect_out("[2] @5  [Object, CMetaObjectObject")
expect_out("    Get:nodeName = \"a\"")
expect_out("    Get:nodeName = \"#text\"")
run_tool(0 --json walk COM://MSXML2.DOMDocument.6.0 "Invoke:loadXML <r><a/><b/></r>" "Get:documentElement"
  "Get:childNodes" "@1 Get:nodeName" "@2")
expect_json_rows("collection=@2" "elements.1.handle=@4" "calls.3.result.text=r")

# VBScript.RegExp: Execute returns a Matches collection.
run_tool(0 --json walk COM://VBScript.RegExp "Set:Pattern \\d+" "Set:Global true" "Invoke:Execute \"a1 b22 c333\""
  --each Get:Value --each Get:FirstIndex)
expect_json_rows("count=3" "elements.0.calls.0.result.text=1" "elements.1.calls.0.result.text=22"
                 "elements.2.calls.0.result.text=333" "elements.2.calls.1.result.text=8" "handlersInUse=0")

# The collection fixture: Make(flags, size) gives collections that misbehave on
# request. A row: flags, size, walk options, exit, then fragments of the output,
# one an argument ("!" in front: must be absent). Arguments are read one by one,
# since a list splits badly at the brackets of the output.
function(fixture_walk flags size options expected_exit)
  run_tool(${expected_exit} walk COM://ComHandlerTest.CollectionFixture "Invoke:Make ${flags} ${size}" ${options})
  math(EXPR last "${ARGC} - 1")
  foreach(index RANGE 4 ${last})
    set(fragment "${ARGV${index}}")
    if(fragment MATCHES "^!")
      string(SUBSTRING "${fragment}" 1 -1 absent)
      string(FIND "${out}" "${absent}" at)
      if(NOT at EQUAL -1)
        message(FATAL_ERROR "Make ${flags} ${size}: output has '${absent}':\n${out}")
      endif()
    else()
      expect_out("${fragment}")
    endif()
  endforeach()
  set(err "${err}" PARENT_SCOPE)
endfunction()
fixture_walk(0 600 "--max;2" 0 "count:             600\n[0] 0  [Int, CMetaObjectInt]\n[1] 1  [Int" "!\n[2]")
# Short batches with S_OK don't end the walk; only an empty one does.
fixture_walk(256 40 "--skip;35" 0 "skipped:           35\n[35] 35  [Int" "[39] 39  [Int" "!\n[40]")
fixture_walk(512 5 "" 0 "[4] 4  [Int")
fixture_walk(1 2 "" 0 "count:             2\n[0] 0  [Int")
fixture_walk(64 3 "" 0 "count:             3\n[0] 0")
# Elements of a type without an item are dropped, and the index doesn't count them.
fixture_walk(1024 4 "" 0 "[2] {}  [Struct, CMetaObjectStruct]" "!\n[3]")
fixture_walk(2048 2 "--each;Get:Index" 0 "[1] @3  [Object, CMetaObjectObject]\n    Get:Index = 1  [Int")
fixture_walk(32 2 "" 1 "!\ncount:")
# A skip that fails ends the walk: where it left the enumerator is unknown.
fixture_walk(8192 20 "--skip;12" 1 "count:             20\n" "!skipped:" "!\n[12]")
expect_error_line("skipping 12 elements failed: status NoCollection (13)")
run_tool(1 walk COM://ComHandlerTest.CollectionFixture "Invoke:Make 8192 20")
expect_error_line("the walk stopped after 0 elements: status BadType (12)")
run_tool(1 walk COM://ComHandlerTest.CollectionFixture "Invoke:Make 2 2")
expect_error_line("@1 is no collection: status NoCollection (13)")

# What isn't a collection, or can't be reached, says so on one line.
run_tool(1 walk COM://VBScript.RegExp)
expect_error_line("COM://VBScript.RegExp is no collection: status NoCollection (13)")
run_tool(1 walk COM://Scripting.FileSystemObject "Invoke:GetFolder C:\\windows")
expect_error_line("@1 is no collection: status NoCollection (13)")
run_tool(2 walk COM://Scripting.Dictionary "@3")
expect_error_line("there is no handle @3")
run_tool(2 walk COM://Scripting.Dictionary --each "@1 Get:Name")
expect_error_line("a call of --each goes to the element; it takes no handle")
run_tool(1 walk COM://MSXML2.DOMDocument.6.0 "Invoke:loadXML <r><a/></r>" "Get:documentElement" "Get:childNodes"
  --each Get:NoSuchMember)
expect_error_line("@3 Get:NoSuchMember failed")

# The tour: every step ran, and what a newcomer should see is there.
run_tool(0 tour)
foreach(line "1. Create the object" "   catalogue: Ok (0)" "   > Get:Count                      3  [Int, CMetaObjectInt]"
             "   > Get:Item pear                  5  [Int, CMetaObjectInt]"
             "   > Invoke:Items                   (0 to 2) [\"3\", 5, \"ripe and red\"]  [Array, CMetaObjectArray"
             "   CountElements: Ok (0), count 3" "     \"plum\"  [String, CMetaObjectString" "   13 members:\n     Setref:Item Set:Item Get:Item Invoke:Add")
  expect_out("${line}")
endforeach()

# Arrays in results: a Dictionary's Items is a Variant array; VBScript builds
# two- and three-dimensional ones.
run_tool(0 --json call COM://Scripting.Dictionary "Invoke:Add a 1" "Invoke:Add b int:2" "Invoke:Items")
expect_json_rows("calls.2.result.metaType=Array" "calls.2.result.bounds.0.lower=0" "calls.2.result.bounds.0.upper=1"
                 "calls.2.result.bounds.0.count=2" "calls.2.result.elements.0.text=1"
                 "calls.2.result.elements.1.metaType=Int")
run_tool(0 call COM://MSScriptControl.ScriptControl "Set:Language VBScript"
  "Invoke:AddCode \"Function M() : Dim a(1, 2), i, j : For i = 0 To 1 : For j = 0 To 2 : a(i, j) = i * 3 + j + 1 : Next : Next : M = a : End Function\""
  "Invoke:AddCode \"Function C() : Dim a(1, 1, 1) : a(1, 1, 1) = 8 : a(0, 0, 0) = Array(1, \\\"x\\\") : C = a : End Function\""
  "Invoke:Eval M()" "Invoke:Eval C()")
expect_out("result:            (0 to 1, 0 to 2) [[1, 2, 3], [4, 5, 6]]  [Array, CMetaObjectArray")
expect_out("result:            (0 to 1, 0 to 1, 0 to 1) [[[(0 to 1) [1, \"x\"], ")
expect_out(", 8]]]  [Array, CMetaObjectArray")
# The array fixture: lower bounds -1, 0 and 5, an empty dimension, Variant
# arrays inside Variant arrays, and objects in an array with handles of their own.
run_tool(0 call COM://ComHandlerTest.ArrayFixture "Invoke:Cube" "Invoke:EmptyDimension" "Invoke:Nested 3"
  "Invoke:Children 2" "@2 Get:Id")
expect_out("result:            (-1 to 0, 0 to 2, 5 to 6) [[[-95, -94], [-85, -84], [-75, -74]], [[5, 6], [15, 16], [25, 26]]]  [Array")
expect_out("result:            (0 to 1, 0 to -1) []  [Array")
expect_out("result:            (0 to 0) [(0 to 0) [(0 to 0) [42]]]  [Array")
expect_out("result:            (0 to 1) [@1, @2]  [Array")
run_tool(0 --json call COM://ComHandlerTest.ArrayFixture "Invoke:Cube" "Invoke:EmptyDimension")
expect_json_rows("calls.0.result.bounds.0.lower=-1" "calls.0.result.bounds.0.upper=0" "calls.0.result.bounds.2.lower=5"
                 "calls.0.result.bounds.2.upper=6" "calls.0.result.elements.11.text=26"
                 "calls.1.result.bounds.1.count=0" "calls.1.result.bounds.1.upper=-1" "handlersInUse=0")

# Writes settingsctl's man page from the tool's own help, at build time:
#
#   cmake -DTOOL=<settingsctl> -DHELP2MAN=<help2man> -DVERSION=<x.y.z> -DOUTPUT=<file.1>
#         -P man_page.cmake
#
# help2man turns `settingsctl --help` into NAME, SYNOPSIS, DESCRIPTION and OPTIONS; the
# VERBS section holds `settingsctl VERB --help` of every verb that --help lists under
# "Subcommands:", so the page follows the tool's verbs without being edited.

cmake_minimum_required(VERSION 3.25)

function(help out)  # help(<out var> [VERB]): the help text of the tool or of a verb
  execute_process(COMMAND "${TOOL}" ${ARGN} --help
    OUTPUT_VARIABLE text RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${TOOL} ${ARGN} --help failed (${rc})")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Text for roff: a backslash and a minus written as such, no line read as a request.
function(roff out text)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REPLACE "-" "\\-" text "${text}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

help(top)
string(REGEX MATCH "\nSubcommands:\n(  [^\n]*\n)+" listed "${top}")
string(REGEX MATCHALL "\n  [a-z][a-z0-9-]*" verbs "${listed}")
if(NOT verbs)
  message(FATAL_ERROR "${TOOL} --help lists no verbs under \"Subcommands:\"")
endif()

set(section "[VERBS]\n")
foreach(verb IN LISTS verbs)
  string(STRIP "${verb}" verb)
  help(text "${verb}")
  string(STRIP "${text}" text)
  roff(text "${text}")
  string(APPEND section ".SS ${verb}\n.nf\n${text}\n.fi\n")
endforeach()
file(WRITE "${OUTPUT}.include" "${section}")

execute_process(COMMAND "${HELP2MAN}" --no-info --section=1 --version-string=${VERSION}
    "--name=read, change, export, import and watch libsettings_manager settings"
    "--source=libsettings_manager ${VERSION}" "--include=${OUTPUT}.include"
    "--output=${OUTPUT}" "${TOOL}"
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "help2man failed (${rc})")
endif()

# Turns the name table shared with the Python package (python/vantix/names.tsv)
# into a C++ header for the tool.  Run as a build step:
#   cmake -DTSV=<names.tsv> -DOUT=<header> -P names_header.cmake
# Rows: group, name, value (decimal or 0x hex), aliases (comma-separated or -),
# tab-separated; '#' lines and blank lines are skipped.  A malformed row stops
# the build with its line number rather than giving the tool a wrong table.
if(NOT TSV OR NOT OUT)
  message(FATAL_ERROR "names_header.cmake needs -DTSV=<table> -DOUT=<header>")
endif()

file(READ "${TSV}" content)
# Characters that CMake's lists treat specially are made harmless before the
# text is split into lines: they can only be in comments (a row holding one
# fails the checks below).
string(REPLACE ";" ":" content "${content}")
string(REPLACE "[" "(" content "${content}")
string(REPLACE "]" ")" content "${content}")
string(REPLACE "\r" "" content "${content}")
string(REPLACE "\n" ";" lines "${content}")

set(rows "")
set(number 0)
foreach(line IN LISTS lines)
  math(EXPR number "${number} + 1")
  if(line STREQUAL "" OR line MATCHES "^#")
    continue()
  endif()
  string(REPLACE "\t" ";" fields "${line}")
  list(LENGTH fields count)
  if(NOT count EQUAL 4)
    message(FATAL_ERROR "${TSV}:${number}: ${count} tab-separated fields, 4 expected")
  endif()
  list(GET fields 0 group)
  list(GET fields 1 name)
  list(GET fields 2 value)
  list(GET fields 3 aliases)
  foreach(word IN ITEMS "${group}" "${name}")
    if(NOT word MATCHES "^[A-Za-z0-9_]+$")
      message(FATAL_ERROR "${TSV}:${number}: '${word}' is not a plain name")
    endif()
  endforeach()
  if(NOT value MATCHES "^(0[xX][0-9A-Fa-f]+|[0-9]+)$")
    message(FATAL_ERROR "${TSV}:${number}: value '${value}' is not a decimal or 0x number")
  endif()
  if(aliases STREQUAL "-")
    set(aliases "")
  elseif(NOT aliases MATCHES "^[A-Za-z0-9_]+(,[A-Za-z0-9_]+)*$")
    message(FATAL_ERROR "${TSV}:${number}: aliases '${aliases}' are not comma-separated names")
  endif()
  string(APPEND rows "    {\"${group}\", \"${name}\", ${value}u, \"${aliases}\"},\n")
endforeach()

file(WRITE "${OUT}"
  "// Generated from python/vantix/names.tsv by tools/vantix/names_header.cmake\n"
  "// at build time; edit the table, not this file.\n"
  "#pragma once\n\n"
  "#include <cstdint>\n\n"
  "namespace vtool {\n\n"
  "struct NameRow {\n"
  "  const char* group;\n"
  "  const char* name;\n"
  "  uint32_t value;\n"
  "  const char* aliases;  // comma-separated, \"\" for none\n"
  "};\n\n"
  "inline constexpr NameRow kNameRows[] = {\n"
  "${rows}"
  "};\n\n"
  "}  // namespace vtool\n")

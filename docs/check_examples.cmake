# Keeps the example programs shown on the documentation pages identical to the files the tests
# build and run. Run as: cmake -DSOURCE_DIR=<source tree> -P docs/check_examples.cmake
#
# Every ```c block of docs/*.md must be followed (after its closing fence, on the next
# non-empty line) by a line naming `examples/<file>.c`, and its text must equal that file.
# Fails with the page, the file and the first differing line; reports how many blocks it checked.
cmake_minimum_required(VERSION 3.25)

if(NOT SOURCE_DIR)
  get_filename_component(SOURCE_DIR "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
endif()

# Sets `out` to the 1-based line of `text` holding character `index`, and `line_text` to it.
function(vx_line_at text index out line_text)
  string(SUBSTRING "${text}" 0 ${index} before)
  string(REGEX MATCHALL "\n" breaks "${before}")
  list(LENGTH breaks count)
  math(EXPR number "${count} + 1")
  string(FIND "${before}" "\n" start REVERSE)
  math(EXPR start "${start} + 1")
  string(SUBSTRING "${text}" ${start} -1 rest)
  string(FIND "${rest}" "\n" end)
  string(SUBSTRING "${rest}" 0 ${end} line)
  set(${out} ${number} PARENT_SCOPE)
  set(${line_text} "${line}" PARENT_SCOPE)
endfunction()

# Sets `out` to the index of the first character where `a` and `b` differ (binary search on
# the length of their common prefix).
function(vx_first_difference a b out)
  string(LENGTH "${a}" length_a)
  string(LENGTH "${b}" length_b)
  set(low 0) # a prefix of this length is common
  if(length_a LESS length_b)
    set(high ${length_a})
  else()
    set(high ${length_b})
  endif()
  while(low LESS high)
    math(EXPR middle "(${low} + ${high} + 1) / 2")
    string(SUBSTRING "${a}" 0 ${middle} prefix_a)
    string(SUBSTRING "${b}" 0 ${middle} prefix_b)
    if(prefix_a STREQUAL prefix_b)
      set(low ${middle})
    else()
      math(EXPR high "${middle} - 1")
    endif()
  endwhile()
  set(${out} ${low} PARENT_SCOPE)
endfunction()

set(checked 0)
set(failures "")
file(GLOB pages "${SOURCE_DIR}/docs/*.md")
list(SORT pages)
foreach(page IN LISTS pages)
  get_filename_component(page_name "${page}" NAME)
  file(READ "${page}" content)
  string(PREPEND content "\n") # so that a fence on the first line starts with a line break too
  string(REGEX REPLACE "\n```[cC][ \t\r]*\n" "\n```c\n" content "${content}") # ```C, trailing blanks
  while(TRUE)
    string(FIND "${content}" "\n```c\n" open)
    if(open EQUAL -1)
      break()
    endif()
    math(EXPR body_start "${open} + 6")
    string(SUBSTRING "${content}" ${body_start} -1 content)
    string(FIND "${content}" "\n```" close)
    if(close EQUAL -1)
      string(APPEND failures "  ${page_name}: a ```c block is never closed\n")
      break()
    endif()
    math(EXPR close_end "${close} + 4")
    string(SUBSTRING "${content}" 0 ${close} block)
    string(APPEND block "\n")
    string(SUBSTRING "${content}" ${close_end} -1 content)

    # The block names its file on the first non-empty line after the closing fence.
    string(REGEX MATCH "^[^\n]*\n[ \t\r\n]*([^\n]*)" after "${content}")
    set(naming_line "${CMAKE_MATCH_1}")
    string(REGEX MATCH "examples/([A-Za-z0-9_.-]+\\.c)" named "${naming_line}")
    if(NOT named)
      string(APPEND failures "  ${page_name}: a ```c block is not followed by a line naming examples/<file>.c "
                             "(found: \"${naming_line}\")\n")
      continue()
    endif()
    set(example "${SOURCE_DIR}/${named}")
    if(NOT EXISTS "${example}")
      string(APPEND failures "  ${page_name}: names ${named}, which does not exist\n")
      continue()
    endif()
    file(READ "${example}" expected)
    math(EXPR checked "${checked} + 1")
    if(block STREQUAL expected)
      message(STATUS "${page_name}: the block equals ${named}")
      continue()
    endif()
    vx_first_difference("${block}" "${expected}" at)
    vx_line_at("${block}" ${at} line page_line)
    vx_line_at("${expected}" ${at} file_line_number file_line)
    string(APPEND failures "  ${page_name}: the block differs from ${named} at line ${line}\n"
                           "    page: ${page_line}\n    file: ${file_line}\n")
  endwhile()
endforeach()

if(failures)
  message(FATAL_ERROR "Documentation examples out of step with their files (${checked} block(s) checked):\n"
                      "${failures}")
endif()
if(checked EQUAL 0)
  message(FATAL_ERROR "No ```c block naming an example file was found under ${SOURCE_DIR}/docs")
endif()
message(STATUS "${checked} example block(s) checked: every one equals its file")

# Checks android/Android.bp against the CMake build (cmake -P, from ctest):
# the cc_binary "ovta-amt" lists exactly the sources the build compiles into
# the agent for Android, the picture's source as the checked-in
# android/amt_mode_picture.cpp, which must equal what make_logo draws; its
# cflags are the build's warnings with -Werror and 64-bit file offsets; and
# the files it names exist.
#   -DEXPECTED=<file setting EXPECTED_SOURCES, EXPECTED_WARNINGS, LOGO_SOURCE>
#   -DSOURCE_DIR=<repository root>
cmake_minimum_required(VERSION 3.25)
include(${EXPECTED})
set(bp_file ${SOURCE_DIR}/android/Android.bp)
set(logo_copy android/amt_mode_picture.cpp)
file(READ ${bp_file} bp)
# A path in a comment does not count.
string(REGEX REPLACE "//[^\n]*" "" bp "${bp}")
string(REGEX MATCH "cc_binary {[^}]*name: \"ovta-amt\"[^}]*}" module "${bp}")
if(NOT module)
  message(FATAL_ERROR "${bp_file}: no cc_binary named ovta-amt")
endif()

set(problems "")
# The quoted items of the list property `key` of the module.
function(bp_list key out)
  if(NOT module MATCHES "[ \n]${key}: \\[([^]]*)\\]")
    set(${out} "" PARENT_SCOPE)
    return()
  endif()
  string(REGEX MATCHALL "\"[^\"]*\"" items "${CMAKE_MATCH_1}")
  list(TRANSFORM items REPLACE "\"" "")
  set(${out} "${items}" PARENT_SCOPE)
endfunction()

# Adds a problem for each item of `want` missing from `have` and the reverse.
function(compare what want have)
  set(found "${problems}")
  foreach(item IN LISTS want)
    if(NOT item IN_LIST have)
      list(APPEND found "${what}: missing ${item}")
    endif()
  endforeach()
  foreach(item IN LISTS have)
    if(NOT item IN_LIST want)
      list(APPEND found "${what}: not in the CMake build: ${item}")
    endif()
  endforeach()
  set(unique "${have}")
  list(REMOVE_DUPLICATES unique)
  list(LENGTH unique n_unique)
  list(LENGTH have n_have)
  if(NOT n_unique EQUAL n_have)
    list(APPEND found "${what}: a name is listed twice")
  endif()
  set(problems "${found}" PARENT_SCOPE)
endfunction()

bp_list(srcs srcs)
compare(srcs "${EXPECTED_SOURCES};${logo_copy}" "${srcs}")

bp_list(cflags cflags)
compare(cflags "${EXPECTED_WARNINGS};-Werror;-D_FILE_OFFSET_BITS=64" "${cflags}")

bp_list(shared_libs libs)
compare(shared_libs "liblog;libcutils;libz" "${libs}")

bp_list(init_rc rc)
foreach(path IN LISTS srcs rc)
  if(NOT EXISTS ${SOURCE_DIR}/${path})
    list(APPEND problems "no such file: ${path}")
  endif()
endforeach()

if(NOT EXISTS ${LOGO_SOURCE})
  list(APPEND problems "the build has not drawn the picture yet: ${LOGO_SOURCE}")
elseif(EXISTS ${SOURCE_DIR}/${logo_copy})
  file(READ ${LOGO_SOURCE} drawn)
  file(READ ${SOURCE_DIR}/${logo_copy} copied)
  if(NOT drawn STREQUAL copied)
    list(APPEND problems "${logo_copy} differs from the picture make_logo draws: copy ${LOGO_SOURCE} over it")
  endif()
endif()

list(FILTER problems EXCLUDE REGEX "^$")
if(problems)
  list(JOIN problems "\n  " text)
  message(FATAL_ERROR "${bp_file} does not match the CMake build:\n  ${text}")
endif()
message(STATUS "Android.bp: ${bp_file} matches the CMake build")

# The floors of the source tree, bottom up, and what each may include:
#
#   platform      the Linux stand-ins          platform
#   support       the support library          platform, support
#   daemon        the coordinator's core       platform, support, daemon
#   subsystems    connections, accounting,     platform, support, daemon and
#                 purge, maintenance, state    their own folder, never each other
#
# Beside them, the tools see the platform (vantorctl the support library too)
# and the testkit sees the platform; the tests and benchmarks may include
# anything.
#
# Every quoted include with a folder ("support/log.h") is checked against its
# file's floor; a quoted include without a folder names a file of the same
# folder. Run at configure time and before every build:
#   cmake -DVANTOR_LAYERS_ROOT=<source dir> -P cmake/check_layers.cmake
# It prints each include that reaches up or sideways and fails if there is one.

if(CMAKE_SCRIPT_MODE_FILE)
  cmake_policy(VERSION 3.25)
endif()

set(_subsystems connections accounting purge maintenance state)

# Sets `out` to the include prefixes allowed in files under `folder` (a path
# relative to the root), or to "*" when anything may be included.
function(_vantor_allowed_prefixes folder out)
  if(folder MATCHES "^src/platform(/|$)")
    set(allowed platform)
  elseif(folder MATCHES "^src/support(/|$)")
    set(allowed platform support)
  elseif(folder MATCHES "^src/daemon(/|$)")
    set(allowed platform support daemon)
  elseif(folder MATCHES "^src/([a-z_]+)")
    set(subsystem ${CMAKE_MATCH_1})
    if(NOT subsystem IN_LIST _subsystems)
      message(FATAL_ERROR "layer check: ${folder} is not a floor; add it to cmake/check_layers.cmake")
    endif()
    set(allowed platform support daemon ${subsystem})
  elseif(folder MATCHES "^tools/vantorctl(/|$)")
    set(allowed platform support)
  elseif(folder MATCHES "^(tools|testkit)(/|$)")
    set(allowed platform testkit)
  else()
    set(allowed "*")
  endif()
  set(${out} "${allowed}" PARENT_SCOPE)
endfunction()

# Appends to the list named `list_var` one line per include in `file` that
# its floor does not allow.
function(_vantor_check_file root file list_var)
  file(RELATIVE_PATH relative ${root} ${file})
  get_filename_component(folder ${relative} DIRECTORY)
  _vantor_allowed_prefixes(${folder} allowed)
  if(allowed STREQUAL "*")
    return()
  endif()
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  set(found ${${list_var}})
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]*)\".*" "\\1" header "${line}")
    if(header MATCHES "\\.\\./")
      list(APPEND found "${relative}: includes \"${header}\" through a parent folder")
    elseif(header MATCHES "^([a-z_]+)/")
      if(NOT CMAKE_MATCH_1 IN_LIST allowed)
        string(REPLACE ";" ", " readable "${allowed}")
        list(APPEND found "${relative}: includes \"${header}\", but this floor may include only ${readable}")
      endif()
    endif()
  endforeach()
  set(${list_var} "${found}" PARENT_SCOPE)
endfunction()

function(vantor_check_layers root)
  file(GLOB_RECURSE files LIST_DIRECTORIES false
       ${root}/src/*.cpp ${root}/src/*.h ${root}/tools/*.cpp ${root}/tools/*.h
       ${root}/testkit/*.cpp ${root}/testkit/*.h)
  set(violations "")
  foreach(file IN LISTS files)
    _vantor_check_file(${root} ${file} violations)
  endforeach()
  if(violations)
    list(JOIN violations "\n  " text)
    message(FATAL_ERROR "layer check: an include reaches up or across the floors:\n  ${text}")
  endif()
endfunction()

if(CMAKE_SCRIPT_MODE_FILE AND VANTOR_LAYERS_ROOT)
  vantor_check_layers(${VANTOR_LAYERS_ROOT})
endif()

# The layer check passes a tree whose includes stay on their floors and fails,
# naming each offender, on an include that reaches up a floor, one that
# reaches across to another subsystem, and one through a parent folder.
#   cmake -DCHECKER=<cmake/check_layers.cmake> -DWORK_DIR=<scratch dir> -P this
cmake_policy(VERSION 3.25)

set(root ${WORK_DIR}/tree)
file(REMOVE_RECURSE ${root})

function(plant relative text)
  file(WRITE ${root}/${relative} "${text}\n")
endfunction()

function(run_checker expect_ok)
  execute_process(COMMAND ${CMAKE_COMMAND} -DVANTOR_LAYERS_ROOT=${root} -P ${CHECKER}
                  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(expect_ok AND NOT result EQUAL 0)
    message(FATAL_ERROR "a tree on its floors was refused:\n${output}")
  elseif(NOT expect_ok AND result EQUAL 0)
    message(FATAL_ERROR "a tree with offending includes was accepted")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

plant(src/platform/files/fd.h "#include <unistd.h>\n#include \"platform/clock/clock.h\"")
plant(src/support/log.cpp "#include \"log.h\"\n#include \"platform/files/fd.h\"")
plant(src/daemon/vantor.cpp "#include \"support/log.h\"")
plant(src/purge/purge_driver.cpp "#include \"daemon/vantor.h\"\n#include \"purge/donation.h\"")
plant(tools/vantorctl/main.cpp "#include \"support/volumes.h\"")
plant(testkit/temp_dir.cpp "#include \"testkit/temp_dir.h\"")
run_checker(TRUE)

plant(src/support/stats.cpp "#include \"daemon/vantor.h\"")
plant(src/maintenance/periodic.cpp "#include \"purge/donation.h\"")
plant(tools/cachedir/index.cpp "#include \"../../src/support/log.h\"")
run_checker(FALSE)
foreach(offender "src/support/stats.cpp: includes \"daemon/vantor.h\""
                 "src/maintenance/periodic.cpp: includes \"purge/donation.h\""
                 "tools/cachedir/index.cpp: includes \"../../src/support/log.h\"")
  string(FIND "${output}" "${offender}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the check did not name ${offender}:\n${output}")
  endif()
endforeach()
file(REMOVE_RECURSE ${root})

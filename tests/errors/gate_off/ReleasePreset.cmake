# Configures the `release` preset into a scratch folder and checks that its library is
# compiled with the logger's build-time debug switch off: the gate_off programs test that
# logger, this checks that the preset really builds it. Run by CTest with
# -DSOURCE_DIR=<sources> -DBUILD_DIR=<scratch folder>.
file(REMOVE_RECURSE "${BUILD_DIR}")
execute_process(COMMAND "${CMAKE_COMMAND}" --preset release -B "${BUILD_DIR}"
                WORKING_DIRECTORY "${SOURCE_DIR}" RESULT_VARIABLE result OUTPUT_QUIET ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "configuring the release preset failed:\n${errors}")
endif()
file(READ "${BUILD_DIR}/compile_commands.json" commands)
string(REGEX MATCH "\"command\": \"[^\"]*KRSDKLogger\\.cpp" logger "${commands}")
if(NOT logger MATCHES " -DKRCOMMON_DEBUG_LOG=0 ")
  message(FATAL_ERROR "the release preset compiles the logger without its debug switch off:\n${logger}")
endif()
file(REMOVE_RECURSE "${BUILD_DIR}")

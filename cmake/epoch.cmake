# KIV_EPOCH: no clock of a set is believed that is behind it. KIV_BUILD_EPOCH where it is given, else
# SOURCE_DATE_EPOCH, else the date of the last commit; without any of them a day in May 2019.
set(KIV_EPOCH "${KIV_BUILD_EPOCH}")
if(KIV_EPOCH STREQUAL "" AND DEFINED ENV{SOURCE_DATE_EPOCH})
  set(KIV_EPOCH "$ENV{SOURCE_DATE_EPOCH}")
endif()
if(KIV_EPOCH STREQUAL "")
  # Of these files: the tree may lie within another repository. Nothing of it is run.
  execute_process(
    COMMAND git -c safe.directory=* log -1 --format=%ct -- CMakeLists.txt src
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_VARIABLE KIV_EPOCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  # A commit that was dated ahead must not make a right clock an unbelievable one.
  string(TIMESTAMP KIV_NOW "%s" UTC)
  if(KIV_EPOCH GREATER KIV_NOW)
    set(KIV_EPOCH ${KIV_NOW})
  endif()
  if(KIV_EPOCH STREQUAL "")
    set(KIV_EPOCH 1558062013)
  endif()
endif()
if(NOT KIV_EPOCH MATCHES "^[0-9]+$")
  message(FATAL_ERROR "The build's date is not a number of UTC seconds: ${KIV_EPOCH}")
endif()
message(STATUS "No clock before ${KIV_EPOCH} is believed")
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/CertificateClock.cpp
  PROPERTIES COMPILE_DEFINITIONS KIV_BUILD_EPOCH=INT64_C\(${KIV_EPOCH}\))

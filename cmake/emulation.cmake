# Where the host cannot run what is built, programs that start the built ones find in
# KIV_RUNNABLE_DIR, under the same names, scripts that start qemu with them.
set(KIV_RUNNABLE_DIR ${PROJECT_BINARY_DIR})
if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
  set(KIV_RUNNABLE_DIR ${PROJECT_BINARY_DIR}/emulated)
  string(REPLACE ";" " " KIV_EMULATOR "${CMAKE_CROSSCOMPILING_EMULATOR}")
  foreach(program kivApp tools/kivsend tools/kivstat)
    file(CONFIGURE OUTPUT ${KIV_RUNNABLE_DIR}/${program}
      CONTENT "#!/bin/sh\nexec @KIV_EMULATOR@ -0 \"$0\" '@PROJECT_BINARY_DIR@/@program@' \"$@\"\n" @ONLY)
    file(CHMOD ${KIV_RUNNABLE_DIR}/${program} FILE_PERMISSIONS
      OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endforeach()
endif()

# Installs the build into WORK_DIR/prefix, then configures, builds and runs
# the consumer project against the installed package only.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
                        -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release
                        "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}"
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer build failed: ${rc}")
endif()
execute_process(COMMAND ${WORK_DIR}/build/kel_consumer RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer run failed: ${rc}")
endif()
# pkg-config must describe the same library.
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/lib/pkgconfig:${prefix}/lib/x86_64-linux-gnu/pkgconfig
                          ${PKG_CONFIG} --libs --cflags kel
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out)
  if(rc OR NOT out MATCHES "-lkel")
    message(FATAL_ERROR "pkg-config kel failed: ${rc} ${out}")
  endif()
endif()

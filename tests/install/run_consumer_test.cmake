# Installs the build tree into a scratch prefix, then builds and runs a consumer program twice:
# once through find_package(TeloBackupUtil), once through pkg-config.
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
if(NOT EXISTS ${prefix}/lib/tmpfiles.d/telobackup.conf)
  message(FATAL_ERROR "the tmpfiles.d drop-in was not installed")
endif()

set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=address,undefined")
endif()

# find_package
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
message(STATUS "find_package consumer: ${LAST_OUTPUT}")

# pkg-config
file(GLOB_RECURSE pc_files ${prefix}/telobackup-util.pc)
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(pkg-config --cflags --libs telobackup-util)
string(STRIP "${LAST_OUTPUT}" pkg_flags)
separate_arguments(pkg_flags UNIX_COMMAND "${pkg_flags}")
separate_arguments(extra UNIX_COMMAND "${flags}")
run(${CXX} -std=c++17 ${extra} ${SOURCE_DIR}/tests/install/consumer/main.cpp ${pkg_flags}
    -o ${WORK_DIR}/pkg-consumer)
file(GLOB_RECURSE util_libs ${prefix}/libtelobackup-util.so)
list(GET util_libs 0 util_lib)
get_filename_component(lib_dir ${util_lib} DIRECTORY)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${lib_dir} ${WORK_DIR}/pkg-consumer)
message(STATUS "pkg-config consumer: ${LAST_OUTPUT}")

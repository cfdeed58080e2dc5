# Script mode: cmake -DNORVANE_BUILD_DIR=... -DNORVANE_SOURCE_DIR=... -DWORK_DIR=... -DSAMPLE=... -P run_consumer.cmake
function(run_checked)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "command failed (${result}): ${ARGN}\n${output}")
    endif()
    set(last_output "${output}" PARENT_SCOPE)
endfunction()

function(expect_output_contains text)
    string(FIND "${last_output}" "${text}" position)
    if(position EQUAL -1)
        message(FATAL_ERROR "expected \"${text}\" in the output:\n${last_output}")
    endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run_checked(${CMAKE_COMMAND} --install ${NORVANE_BUILD_DIR} --prefix ${prefix})

foreach(example cpp-host c-host)
    run_checked(${CMAKE_COMMAND} -S ${NORVANE_SOURCE_DIR}/examples/${example} -B ${WORK_DIR}/${example}
        -G Ninja -DCMAKE_PREFIX_PATH=${prefix})
    run_checked(${CMAKE_COMMAND} --build ${WORK_DIR}/${example})
endforeach()

run_checked(${WORK_DIR}/cpp-host/norvane-cpp-host ${SAMPLE} ${WORK_DIR}/cache-cpp)
expect_output_contains("tile kind:   vector")
expect_output_contains("PMTiles v3 vector archive is local range-readable; directory offsets are valid.")

run_checked(${WORK_DIR}/c-host/norvane-c-host ${SAMPLE} ${WORK_DIR}/cache-c)
expect_output_contains("\"tileKind\":\"vector\"")
expect_output_contains("\"remote\":false")

# The same C host built with nothing but pkg-config and the C compiler, on a machine without Qt's development
# files (only our own .pc file is visible), found at run time through the rpath it was linked with.
file(GLOB pkgconfig_dirs ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
set(ENV{PKG_CONFIG_LIBDIR} "${pkgconfig_dirs}")
run_checked(pkg-config --libs norvanecloud)
string(STRIP "${last_output}" libs)
run_checked(pkg-config --variable=includedir norvanecloud)
string(STRIP "${last_output}" includedir)
run_checked(pkg-config --variable=libdir norvanecloud)
string(STRIP "${last_output}" libdir)
separate_arguments(libs UNIX_COMMAND "${libs}")
run_checked(cc -std=c11 -Wall -Wextra -Werror ${NORVANE_SOURCE_DIR}/examples/c-host/main.c -I${includedir} ${libs}
    -Wl,-rpath,${libdir} -o ${WORK_DIR}/c-host-pkgconfig)
run_checked(${WORK_DIR}/c-host-pkgconfig ${SAMPLE} ${WORK_DIR}/cache-pc)
expect_output_contains("\"tileKind\":\"vector\"")

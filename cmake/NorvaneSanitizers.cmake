# NORVANE_CLOUD_SANITIZERS applies to every target of the build, so the library, its tests and Qt's callbacks
# into our code are all instrumented. Qt itself is not rebuilt: what happens inside it is seen only where it calls
# back into us or touches memory we own.
if(NORVANE_CLOUD_SANITIZERS)
    set(_norvane_known_sanitizers address undefined thread leak)
    foreach(_norvane_sanitizer IN LISTS NORVANE_CLOUD_SANITIZERS)
        if(NOT _norvane_sanitizer IN_LIST _norvane_known_sanitizers)
            message(FATAL_ERROR "NORVANE_CLOUD_SANITIZERS: unknown sanitizer '${_norvane_sanitizer}'")
        endif()
    endforeach()
    if("thread" IN_LIST NORVANE_CLOUD_SANITIZERS AND "address" IN_LIST NORVANE_CLOUD_SANITIZERS)
        message(FATAL_ERROR "NORVANE_CLOUD_SANITIZERS: 'thread' cannot be combined with 'address'")
    endif()
    string(REPLACE ";" "," _norvane_sanitizer_list "${NORVANE_CLOUD_SANITIZERS}")
    # -fno-sanitize-recover makes every UBSan finding fatal, so a finding fails its test instead of scrolling by.
    add_compile_options(-fsanitize=${_norvane_sanitizer_list} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${_norvane_sanitizer_list})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # The sanitizers' instrumentation defeats GCC's flow analysis, which then reports std::optional and Qt's
        # array members as maybe uninitialized; the warning stays on in the normal build, where it is reliable.
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        # clang links its static sanitizer runtime into executables only, so our shared libraries (built with
        # --no-undefined) could not resolve the runtime's symbols. The shared runtime serves both; the rpath finds
        # it without LD_LIBRARY_PATH. GCC links its shared runtime into libraries already.
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so
            OUTPUT_VARIABLE _norvane_sanitizer_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
        get_filename_component(_norvane_sanitizer_runtime_dir "${_norvane_sanitizer_runtime}" DIRECTORY)
        add_compile_options(-shared-libsan)
        add_link_options(-shared-libsan -Wl,-rpath,${_norvane_sanitizer_runtime_dir})
    endif()
    if("thread" IN_LIST NORVANE_CLOUD_SANITIZERS)
        # Optimised code keeps the run of the concurrency tests short; line numbers stay useful with -g.
        add_compile_options(-g)
    endif()
endif()

# The fuzz targets need coverage feedback from the library code they drive, not only from their own entry points:
# every object of a fuzzing build gets libFuzzer's edge instrumentation, and only the fuzz executables link the
# libFuzzer driver itself (fuzz/CMakeLists.txt).
if(NORVANE_CLOUD_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "NORVANE_CLOUD_BUILD_FUZZERS needs clang (configure with -DCMAKE_CXX_COMPILER=clang++)")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Warning flags for this project's own targets. Never added to INTERFACE flags, so hosts are not affected.
function(norvane_set_warnings target)
    target_compile_options(${target} PRIVATE
        $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Woverloaded-virtual -Wsuggest-override>
        $<$<COMPILE_LANGUAGE:C>:-Wall -Wextra -Wpedantic>)
    if(NORVANE_CLOUD_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

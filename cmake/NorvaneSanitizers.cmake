# NORVANE_CLOUD_SANITIZERS applies to every target of the build, so the library, its tests and Qt's callbacks
# into our code are all instrumented.
if(NORVANE_CLOUD_SANITIZERS)
    string(REPLACE ";" "," _norvane_sanitizer_list "${NORVANE_CLOUD_SANITIZERS}")
    add_compile_options(-fsanitize=${_norvane_sanitizer_list} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${_norvane_sanitizer_list})
endif()

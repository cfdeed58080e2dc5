# Format sources: coalescing of tile ranges alone, and a 64-tile viewport against nginx versus one request per tile.
norvane_add_benchmark(bench_formats WITH_APPLICATION
    SOURCES bench_formats.cpp
    LIBRARIES NorvaneCloud::Formats NorvaneTestSupport Qt6::Core)
target_include_directories(bench_formats PRIVATE ${PROJECT_SOURCE_DIR}/tests/formats)

norvane_add_benchmark(bench_stac WITH_APPLICATION SOURCES bench_stac.cpp LIBRARIES NorvaneCloud::Stac NorvaneTestSupport Qt6::Core)

norvane_add_benchmark(bench_flat WITH_APPLICATION SOURCES bench_flat.cpp LIBRARIES NorvaneCloud::Flat NorvaneTestSupport Qt6::Core)

norvane_add_benchmark(bench_cache SOURCES bench_cache.cpp LIBRARIES NorvaneCloud::Transport)

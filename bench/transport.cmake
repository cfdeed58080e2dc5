# Range transport costs not covered by the cache and reader programs: the cache key, and disk entries of 1 MiB.
norvane_add_benchmark(bench_cachekey SOURCES bench_cachekey.cpp LIBRARIES NorvaneCloud::Transport)
norvane_add_benchmark(bench_cache_large_entries
    SOURCES bench_cache_large_entries.cpp
    LIBRARIES NorvaneCloud::Transport)

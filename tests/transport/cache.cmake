norvane_add_test(tst_cachediskentry SOURCES tst_cachediskentry.cpp LIBRARIES NorvaneCloud::Transport LABELS unit)
norvane_add_test(tst_cloudrangecache SOURCES tst_cloudrangecache.cpp LIBRARIES NorvaneCloud::Transport LABELS unit)

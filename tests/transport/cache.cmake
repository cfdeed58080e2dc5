norvane_add_test(tst_cloudrangecache SOURCES tst_cloudrangecache.cpp LIBRARIES NorvaneCloud::Transport LABELS unit)

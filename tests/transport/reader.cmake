# The HTTP range reader, its exchange, and the shared test servers they are tested against.
norvane_add_test(tst_loopbackhttpserver
    SOURCES tst_loopbackhttpserver.cpp
    LIBRARIES NorvaneTestSupport Qt6::Network
    LABELS http)
norvane_add_test(tst_httprangereader
    SOURCES tst_httprangereader.cpp
    LIBRARIES NorvaneCloud::Transport NorvaneTestSupport
    LABELS http nginx concurrency)
norvane_add_test(tst_httprangereader_noapplication
    SOURCES tst_httprangereader_noapplication.cpp
    LIBRARIES NorvaneCloud::Transport
    LABELS unit)

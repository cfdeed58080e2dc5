#pragma once

// Debian's nginx as a child process serving one folder on a free loopback port, with its configuration and logs in a
// temporary folder: the real range server of the tests and benchmarks.

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>

#include <memory>

namespace Norvane::Cloud::Testing {

/// One line of the access log.
struct NginxAccessLogEntry {
    QByteArray method;
    QByteArray uri;
    int status = 0;
    qint64 bodyBytesSent = 0;
    /// The request's "Range" header; empty when there was none.
    QByteArray range;
};

class NginxServer final {
public:
    explicit NginxServer(const QString &root);
    /// Stops nginx (SIGQUIT, then kill) and waits for it.
    ~NginxServer();
    NginxServer(const NginxServer &) = delete;
    NginxServer &operator=(const NginxServer &) = delete;

    /// Answers every request with 403 unless it carries the header with exactly this value; call before start().
    /// The name is letters, digits and dashes.
    void requireHeader(const QByteArray &name, const QByteArray &value);
    /// Starts nginx and waits until its port answers; false with errorString() set when it does not come up.
    bool start();
    QString errorString() const;
    quint16 port() const;
    /// "http://127.0.0.1:<port>" plus the path.
    QUrl url(const QString &path) const;
    QList<NginxAccessLogEntry> accessLog() const;
    /// nginx writes a line after the answer has gone out: waits until the log holds at least count lines.
    bool waitForAccessLogEntries(int count, int timeoutMilliseconds = 10000) const;

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Norvane::Cloud::Testing

#pragma once

// nginx as a child process serving a folder on a free loopback port, with its own configuration and logs in a
// temporary folder, for tests and benchmarks against a real server.

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>

#include <memory>

namespace Norvane::Cloud::Testing {

/// One line of the access log.
struct NginxAccessLogEntry {
    QByteArray method;
    /// The request target as sent (path and query).
    QByteArray uri;
    int status = 0;
    /// Body bytes sent to the client.
    qint64 bodyBytesSent = 0;
    /// The request's "Range" header; empty when there was none.
    QByteArray range;
};

class NginxServer final {
public:
    /// Serves root (a folder) once started.
    explicit NginxServer(const QString &root = QString());
    /// Stops the server.
    ~NginxServer();
    NginxServer(const NginxServer &) = delete;
    NginxServer &operator=(const NginxServer &) = delete;

    void setRoot(const QString &root);
    /// Default "/usr/sbin/nginx".
    void setExecutable(const QString &executable);

    /// Writes the configuration, starts nginx and waits until its port answers. False with errorString() set when
    /// nginx is missing or does not come up.
    bool start();
    /// Asks nginx to quit (SIGQUIT, then SIGTERM and SIGKILL if it lingers) and waits for it.
    void stop();
    bool isRunning() const;
    QString errorString() const;
    quint16 port() const;
    /// "http://127.0.0.1:<port>" plus the path.
    QUrl url(const QString &path) const;

    /// The parsed access log so far.
    QList<NginxAccessLogEntry> accessLog() const;
    /// Blocks until the log holds at least count lines (nginx writes a line after the answer has gone out).
    bool waitForAccessLogEntries(int count, int timeoutMilliseconds = 10000) const;
    /// Empties the access log.
    void clearAccessLog();
    /// The folder holding nginx.conf and the logs, while started.
    QString workingDirectory() const;

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Norvane::Cloud::Testing

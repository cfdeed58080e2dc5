#include "nginxserver.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QProcess>
#include <QSaveFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <csignal>
#include <sys/types.h>
#include <unistd.h>

namespace Norvane::Cloud::Testing {

namespace {

quint16 freePort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

bool portAnswers(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(200);
}

// Fields are separated by tabs so a Range value with spaces stays one field; nginx writes "-" for an empty one.
const char logFormat[] = "'$request_method\\t$request_uri\\t$status\\t$body_bytes_sent\\t$http_range'";

} // namespace

class NginxServer::Private {
public:
    QString root;
    QString executable = QStringLiteral("/usr/sbin/nginx");
    std::unique_ptr<QTemporaryDir> workDir;
    std::unique_ptr<QProcess> process;
    QString errorString;
    quint16 port = 0;

    QString accessLogPath() const { return workDir->filePath(QStringLiteral("access.log")); }
    QString errorLogPath() const { return workDir->filePath(QStringLiteral("error.log")); }
    QString errorLogText() const
    {
        QFile file(errorLogPath());
        if (!file.open(QIODevice::ReadOnly))
            return QString();
        return QString::fromLocal8Bit(file.readAll()).trimmed();
    }
    bool writeConfiguration(quint16 listenPort);
    bool launch();
};

bool NginxServer::Private::writeConfiguration(quint16 listenPort)
{
    const QString dir = workDir->path();
    QByteArray config;
    config += "daemon off;\n";
    config += "master_process on;\n";
    config += "worker_processes 1;\n";
    // Running as root, nginx would hand the workers to "nobody", who may not read the served folder.
    if (::geteuid() == 0)
        config += "user root root;\n";
    config += "pid " + QFile::encodeName(dir + QStringLiteral("/nginx.pid")) + ";\n";
    config += "error_log " + QFile::encodeName(errorLogPath()) + " warn;\n";
    config += "events { worker_connections 256; }\n";
    config += "http {\n";
    config += "    types {\n";
    config += "        image/tiff tif tiff;\n";
    config += "        application/vnd.pmtiles pmtiles;\n";
    config += "        application/vnd.apache.parquet parquet;\n";
    config += "        application/json json;\n";
    config += "    }\n";
    config += "    default_type application/octet-stream;\n";
    config += "    log_format norvane " + QByteArray(logFormat) + ";\n";
    config += "    access_log " + QFile::encodeName(accessLogPath()) + " norvane;\n";
    for (const char *kind : { "client_body", "proxy", "fastcgi", "uwsgi", "scgi" }) {
        config += "    " + QByteArray(kind) + "_temp_path " + QFile::encodeName(dir + QLatin1Char('/'))
            + QByteArray(kind) + ";\n";
    }
    config += "    sendfile on;\n";
    config += "    keepalive_timeout 30;\n";
    config += "    server {\n";
    config += "        listen 127.0.0.1:" + QByteArray::number(listenPort) + ";\n";
    config += "        server_name localhost;\n";
    config += "        root " + QFile::encodeName(QDir(root).absolutePath()) + ";\n";
    config += "        location / { }\n";
    config += "    }\n";
    config += "}\n";

    QSaveFile file(workDir->filePath(QStringLiteral("nginx.conf")));
    if (!file.open(QIODevice::WriteOnly)) {
        errorString = QStringLiteral("Cannot write nginx.conf: %1").arg(file.errorString());
        return false;
    }
    file.write(config);
    if (!file.commit()) {
        errorString = QStringLiteral("Cannot write nginx.conf: %1").arg(file.errorString());
        return false;
    }
    return true;
}

bool NginxServer::Private::launch()
{
    const quint16 listenPort = freePort();
    if (listenPort == 0) {
        errorString = QStringLiteral("No free loopback port for nginx");
        return false;
    }
    if (!writeConfiguration(listenPort))
        return false;
    QFile::remove(errorLogPath());

    process = std::make_unique<QProcess>();
    process->setProgram(executable);
    process->setArguments({ QStringLiteral("-p"), workDir->path(), QStringLiteral("-c"),
        workDir->filePath(QStringLiteral("nginx.conf")), QStringLiteral("-e"), errorLogPath() });
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->start();
    if (!process->waitForStarted(10000)) {
        errorString = QStringLiteral("Cannot run %1: %2").arg(executable, process->errorString());
        process.reset();
        return false;
    }
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        if (process->state() != QProcess::Running) {
            errorString = QStringLiteral("nginx exited during start-up: %1 %2")
                              .arg(QString::fromLocal8Bit(process->readAll()).trimmed(), errorLogText());
            process.reset();
            return false;
        }
        if (portAnswers(listenPort)) {
            port = listenPort;
            return true;
        }
        process->waitForFinished(50);
    }
    errorString = QStringLiteral("nginx did not answer on port %1: %2").arg(listenPort).arg(errorLogText());
    return false;
}

NginxServer::NginxServer(const QString &root)
    : d(std::make_unique<Private>())
{
    d->root = root;
}

NginxServer::~NginxServer()
{
    stop();
}

void NginxServer::setRoot(const QString &root)
{
    d->root = root;
}

void NginxServer::setExecutable(const QString &executable)
{
    d->executable = executable;
}

bool NginxServer::start()
{
    if (isRunning())
        return true;
    d->errorString.clear();
    if (!QFileInfo(d->executable).isExecutable()) {
        d->errorString = QStringLiteral("nginx not found at %1 (install Debian's nginx-light)").arg(d->executable);
        return false;
    }
    if (d->root.isEmpty() || !QFileInfo(d->root).isDir()) {
        d->errorString = QStringLiteral("nginx root folder does not exist: %1").arg(d->root);
        return false;
    }
    d->workDir = std::make_unique<QTemporaryDir>();
    if (!d->workDir->isValid()) {
        d->errorString
            = QStringLiteral("Cannot create a temporary folder for nginx: %1").arg(d->workDir->errorString());
        d->workDir.reset();
        return false;
    }
    // Another process may take the free port between the probe and nginx's bind; try again on a new one.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (d->launch())
            return true;
        stop();
        d->workDir = std::make_unique<QTemporaryDir>();
    }
    return false;
}

void NginxServer::stop()
{
    if (d->process) {
        const qint64 pid = d->process->processId();
        if (pid > 0 && d->process->state() == QProcess::Running) {
            ::kill(pid_t(pid), SIGQUIT);
            if (!d->process->waitForFinished(5000)) {
                ::kill(pid_t(pid), SIGTERM);
                if (!d->process->waitForFinished(5000)) {
                    d->process->kill();
                    d->process->waitForFinished(5000);
                }
            }
        }
        d->process.reset();
    }
    d->port = 0;
}

bool NginxServer::isRunning() const
{
    return d->process && d->process->state() == QProcess::Running && d->port != 0;
}

QString NginxServer::errorString() const
{
    return d->errorString;
}

quint16 NginxServer::port() const
{
    return d->port;
}

QUrl NginxServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(d->port).arg(path));
}

QList<NginxAccessLogEntry> NginxServer::accessLog() const
{
    QList<NginxAccessLogEntry> entries;
    if (!d->workDir)
        return entries;
    QFile file(d->accessLogPath());
    if (!file.open(QIODevice::ReadOnly))
        return entries;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() < 5)
            continue;
        NginxAccessLogEntry entry;
        entry.method = fields.at(0);
        entry.uri = fields.at(1);
        entry.status = fields.at(2).toInt();
        entry.bodyBytesSent = fields.at(3).toLongLong();
        entry.range = fields.at(4) == "-" ? QByteArray() : fields.at(4);
        entries.append(entry);
    }
    return entries;
}

bool NginxServer::waitForAccessLogEntries(int count, int timeoutMilliseconds) const
{
    const QDeadlineTimer deadline(timeoutMilliseconds);
    while (true) {
        if (accessLog().size() >= count)
            return true;
        if (deadline.hasExpired())
            return false;
        // nginx gives no signal when it has written a line; poll the file briefly.
        QThread::msleep(5);
    }
}

void NginxServer::clearAccessLog()
{
    if (!d->workDir)
        return;
    QFile file(d->accessLogPath());
    // nginx keeps the log open in append mode, so truncating in place is safe.
    if (file.open(QIODevice::ReadWrite))
        file.resize(0);
}

QString NginxServer::workingDirectory() const
{
    return d->workDir ? d->workDir->path() : QString();
}

} // namespace Norvane::Cloud::Testing

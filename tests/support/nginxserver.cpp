#include "nginxserver.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <csignal>
#include <unistd.h>

namespace Norvane::Cloud::Testing {

namespace {

// Tab-separated, so a Range value with spaces stays one field. Running as root, nginx would hand its workers to
// "nobody", who may not read the served folder.
const char configuration[] = R"(daemon off;
worker_processes 1;
%1
pid %2/nginx.pid;
error_log %2/error.log warn;
events { worker_connections 256; }
http {
    types { image/tiff tif tiff; application/vnd.pmtiles pmtiles; application/vnd.apache.parquet parquet;
            application/json json; }
    default_type application/octet-stream;
    log_format tabs '$request_method\t$request_uri\t$status\t$body_bytes_sent\t$http_range';
    access_log %2/access.log tabs;
    client_body_temp_path %2/body; proxy_temp_path %2/proxy; fastcgi_temp_path %2/fastcgi;
    uwsgi_temp_path %2/uwsgi; scgi_temp_path %2/scgi;
    server { listen 127.0.0.1:%3; root %4; location / { %5 } }
}
)";

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

bool portAnswers(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(200);
}

} // namespace

class NginxServer::Private {
public:
    QString root;
    QTemporaryDir folder;
    QProcess process;
    QString errorString;
    quint16 port = 0;
    QString requiredHeader; // the nginx directive that refuses requests without it
};

NginxServer::NginxServer(const QString &root)
    : d(std::make_unique<Private>())
{
    d->root = QDir(root).absolutePath();
}

NginxServer::~NginxServer()
{
    if (d->process.state() == QProcess::Running) {
        ::kill(pid_t(d->process.processId()), SIGQUIT);
        if (!d->process.waitForFinished(5000)) {
            d->process.kill();
            d->process.waitForFinished(5000);
        }
    }
}

void NginxServer::requireHeader(const QByteArray &name, const QByteArray &value)
{
    // nginx names a request header "$http_" plus its name in lower case with dashes as underscores.
    const QString variable = QString::fromLatin1(name).toLower().replace(QLatin1Char('-'), QLatin1Char('_'));
    d->requiredHeader
        = QStringLiteral("if ($http_%1 != \"%2\") { return 403; }").arg(variable, QString::fromUtf8(value));
}

bool NginxServer::start()
{
    const quint16 port = freePort();
    const QString config = QString::fromLatin1(configuration)
                               .arg(::geteuid() == 0 ? QStringLiteral("user root root;") : QString(), d->folder.path(),
                                   QString::number(port), d->root, d->requiredHeader);
    QFile file(d->folder.filePath(QStringLiteral("nginx.conf")));
    if (!file.open(QIODevice::WriteOnly) || file.write(config.toUtf8()) < 0) {
        d->errorString = QStringLiteral("cannot write %1").arg(file.fileName());
        return false;
    }
    file.close();
    d->process.start(QStringLiteral("/usr/sbin/nginx"),
        { QStringLiteral("-p"), d->folder.path(), QStringLiteral("-c"), file.fileName(), QStringLiteral("-e"),
            d->folder.filePath(QStringLiteral("error.log")) });
    for (const QDeadlineTimer deadline(10000); !deadline.hasExpired(); d->process.waitForFinished(50)) {
        if (d->process.state() == QProcess::NotRunning)
            break;
        if (portAnswers(port)) {
            d->port = port;
            return true;
        }
    }
    QFile log(d->folder.filePath(QStringLiteral("error.log")));
    log.open(QIODevice::ReadOnly);
    d->errorString = QStringLiteral("nginx (Debian's nginx-light) did not come up: %1 %2")
                         .arg(d->process.errorString(), QString::fromLocal8Bit(log.readAll()));
    return false;
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
    QFile file(d->folder.filePath(QStringLiteral("access.log")));
    file.open(QIODevice::ReadOnly);
    for (const QByteArray &line : file.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() == 5)
            entries.append({ fields[0], fields[1], fields[2].toInt(), fields[3].toLongLong(),
                fields[4] == "-" ? QByteArray() : fields[4] });
    }
    return entries;
}

bool NginxServer::waitForAccessLogEntries(int count, int timeoutMilliseconds) const
{
    // nginx gives no signal when it has written a line.
    for (const QDeadlineTimer deadline(timeoutMilliseconds); accessLog().size() < count; QThread::msleep(5)) {
        if (deadline.hasExpired())
            return false;
    }
    return true;
}

} // namespace Norvane::Cloud::Testing

// norvane-cloud: the library's capabilities from the command line.
#include "commandtable.h"
#include "toolmessages.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QNetworkProxyFactory>

#include <exception>
#include <unistd.h>

namespace {

using namespace NorvaneCloudTool;

// The library describes each exchange on this category once a host turns it on.
const char exchangeCategory[] = "norvane.cloud.exchange";

// -v: the library's exchange lines go to the tool's error stream as they are, in order with the tool's own progress
// lines; everything else as Qt would print it. Exchanges run on the main thread, which owns the stream.
void showExchanges(QTextStream &err)
{
    static QTextStream *exchangeStream = nullptr;
    exchangeStream = &err;
    static const QtMessageHandler qtHandler
        = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &message) {
              if (qstrcmp(context.category, exchangeCategory) != 0)
                  return qtHandler(type, context, message);
              *exchangeStream << message << '\n' << Qt::flush;
          });
    QLoggingCategory::setFilterRules(QString::fromLatin1(exchangeCategory) + QStringLiteral(".info=true"));
}

// The version of the project the tool and its library were built from.
int printVersion(Console &console)
{
    console.out << "norvane-cloud " << NORVANE_CLOUD_VERSION << '\n';
    return 0;
}

int run(const QStringList &arguments, Console &console)
{
    const QString name = commandNameOf(arguments);
    if (name.isEmpty() && arguments.mid(1).contains(QLatin1String("--version")))
        return printVersion(console);
    if (name.isEmpty()) {
        const QStringList given = arguments.mid(1);
        const bool help = given.contains(QLatin1String("--help")) || given.contains(QLatin1String("-h"));
        (help ? console.out : console.err) << usageText(nullptr);
        return help ? 0 : 2;
    }
    const Command *command = findCommand(name);
    const Invocation invocation
        = readCommandLine(arguments, name, command ? command->options : QList<QCommandLineOption>());
    if (invocation.versionRequested)
        return printVersion(console);
    if (invocation.global.verbose)
        showExchanges(console.err);
    if (invocation.helpRequested) {
        console.out << usageText(command);
        return 0;
    }
    if (!command)
        throw UsageError(ToolMessages::unknownCommand.arg(name), QString());
    return command->run(invocation, console);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("norvane-cloud"));
    // http_proxy, https_proxy and no_proxy, as the user's other tools honour them.
    QNetworkProxyFactory::setUseSystemConfiguration(true);
    QTextStream out(stdout);
    QTextStream err(stderr);
    Console console { out, err, isatty(STDERR_FILENO) != 0 };
    try {
        return run(QCoreApplication::arguments(), console);
    } catch (const UsageError &error) {
        err << "norvane-cloud: " << error.what() << "\n\n" << usageText(findCommand(error.command()));
        return 2;
    } catch (const std::exception &error) {
        out.flush();
        err << error.what() << '\n';
        return 1;
    }
}

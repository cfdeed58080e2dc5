// norvane-cloud: the library's capabilities from the command line.
#include "commandtable.h"
#include "toolmessages.h"

#include <QCoreApplication>

#include <exception>
#include <unistd.h>

namespace {

using namespace NorvaneCloudTool;

int run(const QStringList &arguments, Console &console)
{
    const QString name = commandNameOf(arguments);
    if (name.isEmpty()) {
        const QStringList given = arguments.mid(1);
        const bool help = given.contains(QLatin1String("--help")) || given.contains(QLatin1String("-h"));
        (help ? console.out : console.err) << usageText(nullptr);
        return help ? 0 : 2;
    }
    const Command *command = findCommand(name);
    const Invocation invocation
        = readCommandLine(arguments, name, command ? command->options : QList<QCommandLineOption>());
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

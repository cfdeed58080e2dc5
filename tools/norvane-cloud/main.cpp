// norvane-cloud: the library's capabilities from the command line.
#include "commandline.h"
#include "commands.h"

#include <QCoreApplication>
#include <QTextStream>

#include <exception>
#include <unistd.h>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("norvane-cloud"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    NorvaneCloudTool::Console console { out, err, isatty(STDERR_FILENO) != 0 };

    QStringList arguments = QCoreApplication::arguments();
    arguments.removeFirst();
    const QString command = NorvaneCloudTool::subcommandOf(arguments);
    try {
        if (command.isEmpty()) {
            const bool help = arguments.contains(QLatin1String("--help")) || arguments.contains(QLatin1String("-h"));
            (help ? out : err) << NorvaneCloudTool::usageText(QString());
            return help ? 0 : 2;
        }
        return NorvaneCloudTool::runCommand(command, arguments, console);
    } catch (const NorvaneCloudTool::UsageError &error) {
        err << "norvane-cloud: " << error.what() << "\n\n" << NorvaneCloudTool::usageText(error.command());
        return 2;
    } catch (const std::exception &error) {
        out.flush();
        err << error.what() << '\n';
        return 1;
    }
}

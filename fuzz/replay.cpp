// Replays inputs through a fuzz target's entry without libFuzzer: every file named on the command line, and every
// file in each folder named. The test suite runs it on the kept regression inputs.

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cstddef>
#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    int replayed = 0;
    for (int index = 1; index < argc; ++index) {
        const QString argument = QFile::decodeName(argv[index]);
        QStringList paths { argument };
        if (QFileInfo(argument).isDir()) {
            paths.clear();
            for (QDirIterator files(argument, QDir::Files); files.hasNext();)
                paths.append(files.next());
        }
        for (const QString &path : paths) {
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(path));
                return 1;
            }
            const QByteArray input = file.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.constData()), size_t(input.size()));
            ++replayed;
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}

#include "formats/cogstructure.h"

#include "formats/formatsmessages.h"

#include <QHash>
#include <QSet>
#include <QtEndian>

#include <stdexcept>

namespace Norvane::Cloud {

namespace {

[[noreturn]] void fail(const char *message)
{
    throw std::runtime_error(message);
}

enum Tag : quint16 {
    newSubfileType = 254,
    imageWidth = 256,
    imageLength = 257,
    bitsPerSample = 258,
    compression = 259,
    photometric = 262,
    stripOffsets = 273,
    samplesPerPixel = 277,
    rowsPerStrip = 278,
    stripByteCounts = 279,
    planarConfiguration = 284,
    predictor = 317,
    tileWidth = 322,
    tileLength = 323,
    tileOffsets = 324,
    tileByteCounts = 325,
    sampleFormat = 339,
};

bool isLayoutTag(quint16 tag)
{
    static const QSet<quint16> tags { newSubfileType, imageWidth, imageLength, bitsPerSample, compression, photometric,
        stripOffsets, samplesPerPixel, rowsPerStrip, stripByteCounts, planarConfiguration, predictor, tileWidth,
        tileLength, tileOffsets, tileByteCounts, sampleFormat };
    return tags.contains(tag);
}

// Serves small reads from aligned blocks, so the directories of a file cost a few reads rather than one per value.
class BlockReader {
public:
    BlockReader(const CogByteReader &read, qint64 length)
        : read(read)
        , length(length)
    {
    }

    QByteArray bytes(quint64 offset, quint64 size)
    {
        if (size > quint64(cogStructureBlockBytes))
            return exactly(qint64(offset), qint64(size));
        const qint64 first = qint64(offset) / cogStructureBlockBytes;
        const qint64 last = qint64(offset + size - 1) / cogStructureBlockBytes;
        QByteArray joined = block(first);
        if (last != first)
            joined += block(last);
        return joined.mid(qint64(offset) - first * cogStructureBlockBytes, qint64(size));
    }

private:
    QByteArray exactly(qint64 offset, qint64 size) const
    {
        QByteArray data = read(offset, size);
        if (data.size() != size)
            fail(FormatsMessages::tiffReadShort);
        return data;
    }

    QByteArray block(qint64 index)
    {
        auto found = blocks.constFind(index);
        if (found != blocks.constEnd())
            return *found;
        const qint64 start = index * cogStructureBlockBytes;
        return *blocks.insert(index, exactly(start, qMin(cogStructureBlockBytes, length - start)));
    }

    const CogByteReader &read;
    const qint64 length;
    QHash<qint64, QByteArray> blocks;
};

class DirectoryWalker {
public:
    DirectoryWalker(const CogByteReader &read, qint64 length)
        : reader(read, length)
        , length(quint64(length))
    {
    }

    void readHeader(CogStructureResult &result, quint64 &firstIfd)
    {
        if (length < 8)
            fail(FormatsMessages::tiffHeaderInvalid);
        const QByteArray header = reader.bytes(0, qMin<quint64>(16, length));
        bigEndian = header.startsWith("MM");
        if (!bigEndian && !header.startsWith("II"))
            fail(FormatsMessages::tiffHeaderInvalid);
        const char *bytes = header.constData();
        const quint64 version = number(bytes + 2, 2);
        bigTiff = version == 43;
        if (version == 42)
            firstIfd = number(bytes + 4, 4);
        else if (bigTiff && header.size() == 16 && number(bytes + 4, 2) == 8 && number(bytes + 6, 2) == 0)
            firstIfd = number(bytes + 8, 8);
        else
            fail(FormatsMessages::tiffHeaderInvalid);
        result.byteOrder = header.left(2);
        result.bigTiff = bigTiff;
    }

    CogImageMetadata readImage(quint64 at, quint64 &next)
    {
        const int countSize = bigTiff ? 8 : 2;
        const int entrySize = bigTiff ? 20 : 12;
        const int nextSize = bigTiff ? 8 : 4;
        if (!inside(at, countSize))
            fail(FormatsMessages::tiffIfdOutside);
        const quint64 entries = number(reader.bytes(at, countSize).constData(), countSize);
        if (entries > cogStructureMaximumEntries)
            fail(FormatsMessages::tiffIfdTooLarge);
        if (!inside(at + countSize, entries * entrySize + nextSize))
            fail(FormatsMessages::tiffIfdOutside);
        const QByteArray directory = reader.bytes(at + countSize, entries * entrySize + nextSize);
        tags.clear();
        for (quint64 index = 0; index < entries; ++index) {
            const char *entry = directory.constData() + index * entrySize;
            if (isLayoutTag(quint16(number(entry, 2))))
                tags.insert(quint16(number(entry, 2)), values(entry));
        }
        next = number(directory.constData() + entries * entrySize, nextSize);
        return image(at);
    }

private:
    quint64 number(const char *at, int size) const
    {
        if (size == 2)
            return bigEndian ? qFromBigEndian<quint16>(at) : qFromLittleEndian<quint16>(at);
        if (size == 4)
            return bigEndian ? qFromBigEndian<quint32>(at) : qFromLittleEndian<quint32>(at);
        return bigEndian ? qFromBigEndian<quint64>(at) : qFromLittleEndian<quint64>(at);
    }

    bool inside(quint64 offset, quint64 size) const { return offset <= length && size <= length - offset; }

    // SHORT, LONG and LONG8 values; any other type leaves the tag as if absent.
    QList<quint64> values(const char *entry)
    {
        const quint64 type = number(entry + 2, 2);
        const int size = type == 3 ? 2 : type == 4 ? 4 : type == 16 ? 8 : 0;
        const int fieldSize = bigTiff ? 8 : 4;
        const quint64 count = number(entry + 4, fieldSize);
        const char *field = entry + 4 + fieldSize;
        if (size == 0 || count == 0)
            return {};
        if (count > valuesLeft)
            fail(FormatsMessages::tiffTooManyValues);
        valuesLeft -= count;
        QByteArray outOfLine;
        if (count * size > quint64(fieldSize)) {
            const quint64 offset = number(field, fieldSize);
            if (!inside(offset, count * size))
                fail(FormatsMessages::tiffValuesOutside);
            outOfLine = reader.bytes(offset, count * size);
            field = outOfLine.constData();
        }
        QList<quint64> result(qsizetype(count), 0);
        for (qsizetype index = 0; index < result.size(); ++index)
            result[index] = number(field + index * size, size);
        return result;
    }

    bool has(Tag tag) const { return !tags.value(tag).isEmpty(); }
    quint64 scalar(Tag tag, quint64 absent) const { return has(tag) ? tags.value(tag).first() : absent; }

    QList<qint32> perSample(Tag tag, quint64 samples) const
    {
        const QList<quint64> stored = tags.value(tag);
        if (stored.isEmpty())
            return QList<qint32>(qsizetype(samples), 1);
        QList<qint32> result;
        for (const quint64 value : stored)
            result.append(qint32(value));
        return result;
    }

    CogImageMetadata image(quint64 at) const
    {
        CogImageMetadata image;
        image.ifdOffset = qint64(at);
        image.tiled = has(tileWidth) || has(tileLength) || has(tileOffsets);
        const Tag offsetsTag = image.tiled ? tileOffsets : stripOffsets;
        const Tag countsTag = image.tiled ? tileByteCounts : stripByteCounts;
        if (!has(imageWidth) || !has(imageLength) || !has(offsetsTag) || !has(countsTag)
            || (image.tiled && (!has(tileWidth) || !has(tileLength))))
            fail(FormatsMessages::tiffTagMissing);
        const quint64 width = scalar(imageWidth, 0);
        const quint64 height = scalar(imageLength, 0);
        const quint64 blockWidth = image.tiled ? scalar(tileWidth, 0) : width;
        const quint64 blockHeight = image.tiled ? scalar(tileLength, 0) : qMin(scalar(rowsPerStrip, height), height);
        const quint64 samples = scalar(samplesPerPixel, 1);
        const quint64 sizeLimit = 0xffffffffU;
        if (width == 0 || height == 0 || blockWidth == 0 || blockHeight == 0 || width > sizeLimit || height > sizeLimit
            || blockWidth > sizeLimit || blockHeight > sizeLimit || samples == 0 || samples > 0xffffU)
            fail(FormatsMessages::tiffImageLayoutInvalid);

        image.planarConfiguration = qint32(scalar(planarConfiguration, 1));
        // Each factor is checked against the value cap first, so the product cannot overflow.
        const quint64 across = (width + blockWidth - 1) / blockWidth;
        const quint64 down = (height + blockHeight - 1) / blockHeight;
        const QList<quint64> offsets = tags.value(offsetsTag);
        const QList<quint64> counts = tags.value(countsTag);
        if (across > cogStructureMaximumValues || down > cogStructureMaximumValues
            || across * down * (image.planarConfiguration == 2 ? samples : 1) != quint64(offsets.size())
            || offsets.size() != counts.size())
            fail(FormatsMessages::tiffBlockCountWrong);
        for (qsizetype index = 0; index < offsets.size(); ++index) {
            if (!inside(offsets[index], counts[index]))
                fail(FormatsMessages::tiffDataOutside);
            image.tileOffsets.append(qint64(offsets[index]));
            image.tileByteCounts.append(qint64(counts[index]));
        }

        image.width = qint64(width);
        image.height = qint64(height);
        image.tileWidth = qint64(blockWidth);
        image.tileHeight = qint64(blockHeight);
        image.samplesPerPixel = qint32(samples);
        image.bitsPerSample = perSample(bitsPerSample, samples);
        image.sampleFormat = perSample(sampleFormat, samples);
        image.compression = qint32(scalar(compression, 1));
        image.predictor = qint32(scalar(predictor, 1));
        image.photometric = has(photometric) ? qint32(scalar(photometric, 0)) : -1;
        image.reducedResolution = (scalar(newSubfileType, 0) & 1) != 0;
        image.mask = (scalar(newSubfileType, 0) & 4) != 0;
        return image;
    }

    BlockReader reader;
    const quint64 length;
    bool bigEndian = false;
    bool bigTiff = false;
    quint64 valuesLeft = cogStructureMaximumValues;
    QHash<quint16, QList<quint64>> tags;
};

} // namespace

CogStructureResult readCogStructure(const CogByteReader &read, qint64 objectLength)
{
    CogStructureResult result;
    result.contentLength = objectLength;
    DirectoryWalker walker(read, qMax<qint64>(objectLength, 0));
    quint64 next = 0;
    walker.readHeader(result, next);
    if (next == 0)
        fail(FormatsMessages::tiffNoIfd);
    QSet<quint64> visited;
    while (next != 0) {
        if (visited.contains(next))
            fail(FormatsMessages::tiffIfdLoop);
        if (result.images.size() == cogStructureMaximumImages)
            fail(FormatsMessages::tiffTooManyIfds);
        visited.insert(next);
        result.images.append(walker.readImage(next, next));
    }
    return result;
}

} // namespace Norvane::Cloud

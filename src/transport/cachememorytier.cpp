#include "transport/cachememorytier.h"

#include "transport/cacheexpiry.h"

#include <QCryptographicHash>
#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Norvane::Cloud {

namespace {

// Four UTF-16 units of lower-case hexadecimal digits, as loaded from memory into 16-bit lanes, to their four values
// in 16 bits; false when any unit is something else. Branch-free within the word: a lookup parses 64 digits.
bool hexadecimalDigitsOfWord(quint64 units, quint16 &value)
{
    constexpr quint64 lanes = 0x0001000100010001;
    if (units & (0xff80 * lanes))
        return false;
    const quint64 digits = (units & (0x000f * lanes)) + ((units >> 6) & lanes) * 9;
    // Written back as text, the values must give the units again: that rejects every unit that is not a digit.
    const quint64 text = digits + 0x30 * lanes + (((digits + 6 * lanes) >> 4) & lanes) * 0x27;
    if ((digits & (0xfff0 * lanes)) || text != units)
        return false;
    const quint64 packed = digits | (digits >> 12);
    value = quint16((packed & 0xff) | ((packed >> 24) & 0xff00));
    return true;
}

// Whether text is 64 lower-case hexadecimal digits; if so, digest holds their value (in an order of its own).
bool hexadecimalDigest(const QString &text, std::array<quint64, 4> &digest)
{
    if (text.size() != 64)
        return false;
    const char *units = reinterpret_cast<const char *>(text.constData());
    for (quint64 &word : digest) {
        word = 0;
        for (int quarter = 0; quarter < 4; ++quarter, units += sizeof(quint64)) {
            quint64 loaded;
            memcpy(&loaded, units, sizeof loaded);
            quint16 value;
            if (!hexadecimalDigitsOfWord(qFromLittleEndian(loaded), value))
                return false;
            word = word << 16 | value;
        }
    }
    return true;
}

} // namespace

CacheMemoryTier::CacheMemoryTier(const CloudCacheOptions &options)
    : enabled(options.memoryEnabled)
    , maximumBytes(options.maximumMemoryBytes)
    , maximumAgeSeconds(options.maximumAgeSeconds)
{
}

bool CacheMemoryTier::read(const QString &key, qint64 nowMilliseconds, CloudRangeResponse &response)
{
    if (!enabled)
        return false;
    const Key hashed = keyOf(key);
    const auto position = entries.find(hashed);
    if (position == entries.end())
        return false;
    if (isCacheEntryExpired(position->storedAtMilliseconds, nowMilliseconds, maximumAgeSeconds)) {
        drop(position);
        return false;
    }
    touch(*position, hashed);
    const Entry &entry = *position;
    response.data = entry.data;
    response.offset = entry.offset;
    response.totalSize = entry.totalSize;
    response.statusCode = entry.statusCode;
    response.etag = entry.headers ? entry.headers->etag : QByteArray();
    response.lastModified = entry.headers ? entry.headers->lastModified : QByteArray();
    response.contentType = entry.headers ? entry.headers->contentType : QByteArray();
    response.acceptsRanges = entry.acceptsRanges;
    response.fromCache = true;
    return true;
}

bool CacheMemoryTier::write(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    if (!enabled || maximumBytes < 1)
        return false;
    const Key hashed = keyOf(key);
    auto position = entries.find(hashed);
    if (position == entries.end()) {
        position = entries.insert(hashed, entryOf(response, storedAtMilliseconds));
    } else {
        heldBytes -= position->data.size();
        *position = entryOf(response, storedAtMilliseconds);
    }
    touch(*position, hashed);
    heldBytes += response.data.size();
    trim();
    return true;
}

void CacheMemoryTier::remove(const QString &key)
{
    const auto position = entries.find(keyOf(key));
    if (position != entries.end())
        drop(position);
}

void CacheMemoryTier::clear()
{
    entries.clear();
    uses.clear();
    headerValues.clear();
    heldBytes = 0;
}

void CacheMemoryTier::touch(Entry &entry, const Key &key)
{
    entry.lastUse = ++useCount;
    uses.push_back({ entry.lastUse, key });
    if (uses.size() > 2 * size_t(entries.size()) + 64)
        compactUses();
}

void CacheMemoryTier::compactUses()
{
    std::vector<Use> live;
    live.reserve(entries.size());
    for (auto position = entries.cbegin(); position != entries.cend(); ++position)
        live.push_back({ position->lastUse, position.key() });
    std::sort(live.begin(), live.end(), [](const Use &left, const Use &right) { return left.use < right.use; });
    uses.assign(std::make_move_iterator(live.begin()), std::make_move_iterator(live.end()));
    headerValues.removeIf([](const auto &shared) { return shared.value().use_count() == 1; });
}

void CacheMemoryTier::drop(QHash<Key, Entry>::iterator position)
{
    heldBytes -= position->data.size();
    entries.erase(position);
}

void CacheMemoryTier::trim()
{
    while (heldBytes > maximumBytes && !uses.empty()) {
        const Use oldest = std::move(uses.front());
        uses.pop_front();
        const auto position = entries.find(oldest.key);
        if (position == entries.end() || position->lastUse != oldest.use)
            continue;
        drop(position);
        ++evicted;
    }
}

CacheMemoryTier::Key CacheMemoryTier::keyOf(const QString &text)
{
    Key key;
    if (!hexadecimalDigest(text, key.digest)) {
        const QByteArray digest = QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256);
        memcpy(key.digest.data(), digest.constData(), sizeof key.digest);
    }
    return key;
}

CacheMemoryTier::Entry CacheMemoryTier::entryOf(const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    Entry entry;
    entry.data = response.data;
    entry.offset = response.offset;
    entry.totalSize = response.totalSize;
    entry.storedAtMilliseconds = storedAtMilliseconds;
    entry.headers = sharedHeaderValues(response);
    entry.statusCode = response.statusCode;
    entry.acceptsRanges = response.acceptsRanges;
    return entry;
}

std::shared_ptr<const CacheMemoryTier::HeaderValues> CacheMemoryTier::sharedHeaderValues(
    const CloudRangeResponse &response)
{
    if (response.etag.isEmpty() && response.lastModified.isEmpty() && response.contentType.isEmpty())
        return nullptr;
    const QByteArray combination = QByteArray::number(response.etag.size()) + ':' + response.etag
        + QByteArray::number(response.lastModified.size()) + ':' + response.lastModified + response.contentType;
    std::shared_ptr<const HeaderValues> &shared = headerValues[combination];
    if (!shared)
        shared = std::make_shared<const HeaderValues>(
            HeaderValues { response.etag, response.lastModified, response.contentType });
    return shared;
}

} // namespace Norvane::Cloud

#include "transport/cachememorytier.h"

#include "transport/cacheexpiry.h"

#include <QHashFunctions>

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Norvane::Cloud {

namespace {

quint64 mixed(quint64 value)
{
    value ^= value >> 30;
    value *= 0xbf58476d1ce4e5b9ULL;
    value ^= value >> 27;
    value *= 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

// Every key the reader makes is 64 lowercase digits, read here as 32 bytes, the first digit of a pair in the high
// half of its byte. Sixteen units at a time where the processor allows: a digit at a time costs more than the rest of
// a hit on a warm tier.
#if defined(__SSE2__)
bool readLowercaseHexDigits(const QString &text, std::array<quint64, 4> &digits)
{
    if (text.size() != 64)
        return false;
    // constData, unlike utf16, never copies a string made from raw data, which may be shared with other threads.
    const auto *units = reinterpret_cast<const __m128i *>(text.constData());
    unsigned char bytes[32];
    __m128i invalid = _mm_setzero_si128();
    for (int block = 0; block < 4; ++block) {
        // A unit above 255 saturates to 255, which is no digit.
        const __m128i characters
            = _mm_packus_epi16(_mm_loadu_si128(units + 2 * block), _mm_loadu_si128(units + 2 * block + 1));
        const __m128i fromZero = _mm_sub_epi8(characters, _mm_set1_epi8('0'));
        const __m128i fromA = _mm_sub_epi8(characters, _mm_set1_epi8('a'));
        const __m128i isDigit = _mm_cmpeq_epi8(_mm_min_epu8(fromZero, _mm_set1_epi8(9)), fromZero);
        const __m128i isLetter = _mm_cmpeq_epi8(_mm_min_epu8(fromA, _mm_set1_epi8(5)), fromA);
        invalid = _mm_or_si128(invalid, _mm_andnot_si128(_mm_or_si128(isDigit, isLetter), _mm_set1_epi8(-1)));
        const __m128i nibbles = _mm_or_si128(
            _mm_and_si128(isDigit, fromZero), _mm_and_si128(isLetter, _mm_add_epi8(fromA, _mm_set1_epi8(10))));
        // Each 16-bit lane holds a pair, its first digit in the low byte.
        const __m128i pairs
            = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(nibbles, _mm_set1_epi16(0xFF)), 4), _mm_srli_epi16(nibbles, 8));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(bytes + 8 * block), _mm_packus_epi16(pairs, pairs));
    }
    if (_mm_movemask_epi8(invalid) != 0)
        return false;
    std::memcpy(digits.data(), bytes, sizeof bytes);
    return true;
}
#else
bool readLowercaseHexDigits(const QString &text, std::array<quint64, 4> &digits)
{
    if (text.size() != 64)
        return false;
    const QChar *unit = text.constData();
    unsigned char bytes[32];
    unsigned invalid = 0;
    for (unsigned char &byte : bytes) {
        unsigned pair = 0;
        for (int half = 0; half < 2; ++half, ++unit) {
            const unsigned character = unit->unicode();
            const unsigned isDigit = character - u'0' <= 9;
            const unsigned isLetter = character - u'a' <= 5;
            invalid |= (isDigit | isLetter) ^ 1;
            pair = pair << 4 | ((character & 0xF) + 9 * isLetter);
        }
        byte = static_cast<unsigned char>(pair);
    }
    std::memcpy(digits.data(), bytes, sizeof bytes);
    return invalid == 0;
}
#endif

void prefetch(const void *address)
{
#if defined(__GNUC__)
    __builtin_prefetch(address, 1);
#else
    Q_UNUSED(address);
#endif
}

// Where the reference count of data lives, which every copy writes; null for data the array does not own.
const void *referenceCountOf(const QByteArray &data)
{
    return const_cast<QByteArray &>(data).data_ptr().d_ptr();
}

// The index of a free place in items, taking a freed one first.
template <typename Items> quint32 takeFreeIndex(Items &items, std::vector<quint32> &freed)
{
    if (freed.empty()) {
        items.emplace_back();
        return quint32(items.size() - 1);
    }
    const quint32 index = freed.back();
    freed.pop_back();
    return index;
}

} // namespace

CacheMemoryTier::CacheMemoryTier(const CloudCacheOptions &options)
    : enabled(options.memoryEnabled)
    , seed(QHashSeed::globalSeed())
    , maximumBytes(options.maximumMemoryBytes)
    , maximumAgeSeconds(options.maximumAgeSeconds)
{
    static_assert(sizeof(Entry) == 128, "a hit reads two cache lines of its entry");
}

CacheMemoryTier::Key CacheMemoryTier::keyOf(const QString &text) const
{
    Key key;
    key.byText = !readLowercaseHexDigits(text, key.digits);
    quint64 hash = seed;
    if (!key.byText) {
        for (const quint64 word : key.digits)
            hash = mixed(hash ^ word);
    } else {
        key.digits = {};
        key.text = text;
        hash = mixed(seed ^ qHash(text, size_t(seed)));
    }
    key.tag = quint32(hash >> 32);
    return key;
}

bool CacheMemoryTier::read(const QString &key, qint64 nowMilliseconds, CloudRangeResponse &response)
{
    if (!enabled)
        return false;
    const quint32 index = find(keyOf(key));
    if (index == noEntry)
        return false;
    if (isCacheEntryExpired(entries[index].storedAtMilliseconds, nowMilliseconds, maximumAgeSeconds)) {
        drop(index);
        return false;
    }
    touch(index);
    copyOut(entries[index], response);
    return true;
}

bool CacheMemoryTier::write(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    if (!enabled || maximumBytes < 1)
        return false;
    const Key hashed = keyOf(key);
    quint32 index = find(hashed);
    if (index == noEntry) {
        index = insert(hashed);
    } else {
        heldBytes -= entries[index].data.size();
        releaseHeaderValues(entries[index].headerValues);
    }
    Entry &entry = entries[index];
    store(entry, response);
    entry.storedAtMilliseconds = storedAtMilliseconds;
    slotOf(entry.tag, index).dataStart = referenceCountOf(entry.data);
    heldBytes += entry.data.size();
    touch(index);
    trim();
    return true;
}

void CacheMemoryTier::store(Entry &entry, const CloudRangeResponse &response)
{
    entry.data = response.data;
    entry.offset = response.offset;
    entry.totalSize = response.totalSize;
    entry.statusCode = response.statusCode;
    entry.headerValues = shareHeaderValues(response);
    entry.acceptsRanges = response.acceptsRanges;
}

// Assigning only what differs: the caller's response often holds the header values of the hit before, the same
// shared arrays, and assigning those again would only count their references up and down.
void CacheMemoryTier::copyOut(const Entry &entry, CloudRangeResponse &response) const
{
    const auto assign = [](QByteArray &target, const QByteArray &value) {
        if (!target.isSharedWith(value) || target.isNull() != value.isNull())
            target = value;
    };
    const HeaderValues &values = headerValues[entry.headerValues];
    response.data = entry.data;
    response.offset = entry.offset;
    response.totalSize = entry.totalSize;
    response.statusCode = entry.statusCode;
    assign(response.etag, values.etag);
    assign(response.lastModified, values.lastModified);
    assign(response.contentType, values.contentType);
    response.acceptsRanges = entry.acceptsRanges;
    response.fromCache = true;
}

void CacheMemoryTier::remove(const QString &key)
{
    const quint32 index = find(keyOf(key));
    if (index != noEntry)
        drop(index);
}

void CacheMemoryTier::clear()
{
    table.clear();
    entries.clear();
    freeEntries.clear();
    liveEntries = 0;
    uses.clear();
    heldBytes = 0;
    headerValues.clear();
    freeHeaderValues.clear();
    lastHeaderValues = noEntry;
}

quint32 CacheMemoryTier::find(const Key &key) const
{
    if (table.empty())
        return noEntry;
    const quint64 mask = table.size() - 1;
    for (quint64 position = key.tag & mask;; position = (position + 1) & mask) {
        const Slot &slot = table[position];
        if (slot.keyWord == 0)
            return noEntry;
        if (slot.keyWord >> 32 != key.tag)
            continue;
        const quint32 index = quint32(slot.keyWord) - 1;
        const auto *entry = reinterpret_cast<const char *>(&entries[index]);
        for (size_t line = 0; line < sizeof(Entry); line += 64)
            prefetch(entry + line);
        if (slot.dataStart)
            prefetch(slot.dataStart);
        if (entries[index].holds(key))
            return index;
    }
}

quint32 CacheMemoryTier::insert(const Key &key)
{
    if (quint64(liveEntries + 1) * 2 > table.size())
        growTable();
    const quint32 index = takeFreeIndex(entries, freeEntries);
    Entry &entry = entries[index];
    entry.digits = key.digits;
    entry.text = key.text;
    entry.byText = key.byText;
    entry.tag = key.tag;
    placeInTable(entry.tag, index);
    ++liveEntries;
    return index;
}

void CacheMemoryTier::drop(quint32 index)
{
    Entry &entry = entries[index];
    removeFromTable(entry.tag, index);
    heldBytes -= entry.data.size();
    releaseHeaderValues(entry.headerValues);
    entry = Entry {};
    freeEntries.push_back(index);
    --liveEntries;
}

void CacheMemoryTier::touch(quint32 index)
{
    entries[index].lastUse = ++useCount;
    uses.push_back({ useCount, index });
    if (uses.size() > 2 * size_t(liveEntries) + 64)
        compactUses();
}

void CacheMemoryTier::compactUses()
{
    uses.erase(
        std::remove_if(uses.begin(), uses.end(), [this](const Use &record) { return isStale(record); }), uses.end());
}

void CacheMemoryTier::trim()
{
    while (heldBytes > maximumBytes && !uses.empty()) {
        const Use oldest = uses.front();
        uses.pop_front();
        if (isStale(oldest))
            continue;
        drop(oldest.entry);
        ++evicted;
    }
}

quint32 CacheMemoryTier::shareHeaderValues(const CloudRangeResponse &response)
{
    const auto same = [](const QByteArray &left, const QByteArray &right) {
        return left == right && left.isNull() == right.isNull();
    };
    if (lastHeaderValues != noEntry) {
        HeaderValues &last = headerValues[lastHeaderValues];
        if (same(last.etag, response.etag) && same(last.lastModified, response.lastModified)
            && same(last.contentType, response.contentType)) {
            ++last.users;
            return lastHeaderValues;
        }
    }
    const quint32 number = takeFreeIndex(headerValues, freeHeaderValues);
    headerValues[number] = { response.etag, response.lastModified, response.contentType, 1 };
    lastHeaderValues = number;
    return number;
}

void CacheMemoryTier::releaseHeaderValues(quint32 number)
{
    HeaderValues &values = headerValues[number];
    if (--values.users != 0)
        return;
    values = HeaderValues {};
    freeHeaderValues.push_back(number);
    if (lastHeaderValues == number)
        lastHeaderValues = noEntry;
}

void CacheMemoryTier::growTable()
{
    table.assign(std::max<size_t>(64, table.size() * 2), Slot {});
    for (quint32 index = 0; index < entries.size(); ++index) {
        const Entry &entry = entries[index];
        if (entry.lastUse != 0)
            placeInTable(entry.tag, index).dataStart = referenceCountOf(entry.data);
    }
}

CacheMemoryTier::Slot &CacheMemoryTier::placeInTable(quint32 tag, quint32 index)
{
    const quint64 mask = table.size() - 1;
    quint64 position = tag & mask;
    while (table[position].keyWord != 0)
        position = (position + 1) & mask;
    table[position] = { quint64(tag) << 32 | (quint64(index) + 1), nullptr };
    return table[position];
}

CacheMemoryTier::Slot &CacheMemoryTier::slotOf(quint32 tag, quint32 index)
{
    const quint64 mask = table.size() - 1;
    quint64 position = tag & mask;
    while (quint32(table[position].keyWord) != index + 1)
        position = (position + 1) & mask;
    return table[position];
}

void CacheMemoryTier::removeFromTable(quint32 tag, quint32 index)
{
    const quint64 mask = table.size() - 1;
    quint64 hole = quint64(&slotOf(tag, index) - table.data());
    // Later slots of the run move back into the hole when the hole lies between their home and them, so that no
    // key is ever separated from its home by a free slot.
    for (quint64 next = (hole + 1) & mask; table[next].keyWord != 0; next = (next + 1) & mask) {
        const quint64 home = (table[next].keyWord >> 32) & mask;
        if (((next - home) & mask) >= ((next - hole) & mask)) {
            table[hole] = table[next];
            hole = next;
        }
    }
    table[hole] = Slot {};
}

} // namespace Norvane::Cloud

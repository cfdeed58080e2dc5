#include "transport/sha256.h"

#include <QCryptographicHash>

#include <openssl/evp.h>

namespace Norvane::Cloud {

namespace {

// Fetched once: fetching the algorithm by name costs more than hashing a key.
const EVP_MD *sha256Algorithm()
{
    static const EVP_MD *const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return algorithm;
}

} // namespace

QByteArray sha256Hex(const QByteArray &bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestSize = 0;
    const EVP_MD *algorithm = sha256Algorithm();
    // A provider configuration without SHA-256 is possible; Qt's own code then gives the same digest.
    if (!algorithm || EVP_Digest(bytes.constData(), size_t(bytes.size()), digest, &digestSize, algorithm, nullptr) != 1
        || digestSize != 32)
        return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
    return QByteArray::fromRawData(reinterpret_cast<const char *>(digest), 32).toHex();
}

} // namespace Norvane::Cloud

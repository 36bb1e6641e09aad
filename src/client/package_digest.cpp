#include "package_digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <memory>
#include <vector>

namespace {
constexpr size_t chunk_bytes = 1 << 20;
using digest_context = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;
}  // namespace

bool package_digest::read(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    digest_context context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    bool good = context && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1;
    std::vector<unsigned char> chunk(chunk_bytes);
    size = 0;
    ssize_t got = 0;
    while (good && (got = ::read(fd, chunk.data(), chunk.size())) > 0) {
        size += static_cast<uint64_t>(got);
        good = EVP_DigestUpdate(context.get(), chunk.data(), static_cast<size_t>(got)) == 1;
    }
    ::close(fd);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!good || got < 0 || EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return false;
    static const char hex[] = "0123456789abcdef";
    sha256.clear();
    for (unsigned int i = 0; i < length; ++i) {
        sha256 += hex[digest[i] >> 4];
        sha256 += hex[digest[i] & 0xf];
    }
    return true;
}

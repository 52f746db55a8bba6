#include "program/tls.h"

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "i18n.h"

namespace fiscorad {
namespace {

using tool::tr;

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw std::runtime_error(path + ": " + why);
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string content(std::istreambuf_iterator<char>(file), {});
    if (!file) fail(path, tool::systemError(errno));
    return content;
}

using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;
Memory memoryOf(const std::string& pem) {
    return {BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free};
}

/// Nobody is asked for a passphrase.
int noPassphrase(char* /*buffer*/, int /*size*/, int /*writes*/, void* /*data*/) { return -1; }

}  // namespace

Identification readIdentification(const std::string& certificateFile, const std::string& keyFile) {
    Identification found{contentOf(certificateFile), contentOf(keyFile)};
    struct stat file {};
    if (stat(keyFile.c_str(), &file) != 0) fail(keyFile, tool::systemError(errno));
    if ((file.st_mode & (S_IRWXG | S_IRWXO)) != 0) fail(keyFile, tr("readable by other users (chmod 600)"));

    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        PEM_read_bio_X509(memoryOf(found.certificate).get(), nullptr, noPassphrase, nullptr), X509_free);
    if (!certificate) fail(certificateFile, tr("contains no PEM certificate"));
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        PEM_read_bio_PrivateKey(memoryOf(found.key).get(), nullptr, noPassphrase, nullptr), EVP_PKEY_free);
    if (!key) fail(keyFile, tr("contains no PEM private key, or the key has a passphrase"));
    if (X509_check_private_key(certificate.get(), key.get()) != 1)
        fail(keyFile, tr("not the key of the certificate"));
    return found;
}

}  // namespace fiscorad

#include "certificate.h"

#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

namespace {

using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;
using Certificate = std::unique_ptr<X509, void (*)(X509*)>;
using Stream = std::unique_ptr<FILE, int (*)(FILE*)>;

constexpr long kYearSeconds = 365L * 24 * 3600;

Certificate makeCertificate(EVP_PKEY* key) {
    Certificate cert(X509_new(), X509_free);
    if (cert == nullptr) return cert;
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), kYearSeconds);
    X509_NAME* const name = X509_get_subject_name(cert.get());
    const auto* host = reinterpret_cast<const unsigned char*>("localhost");
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, host, -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    X509_set_pubkey(cert.get(), key);
    if (X509_sign(cert.get(), key, EVP_sha256()) == 0) cert.reset();
    return cert;
}

Stream create(const std::string& path, mode_t mode) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    return {fd < 0 ? nullptr : fdopen(fd, "w"), fclose};
}

bool make(const std::string& certFile, const std::string& keyFile) {
    const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    if (key == nullptr) return false;
    const Certificate cert = makeCertificate(key.get());
    const Stream keyOut = create(keyFile, 0600);
    const Stream certOut = create(certFile, 0644);
    return cert != nullptr && keyOut != nullptr && certOut != nullptr &&
           PEM_write_PrivateKey(keyOut.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) &&
           PEM_write_X509(certOut.get(), cert.get()) && fflush(keyOut.get()) == 0 &&
           fflush(certOut.get()) == 0;
}

}  // namespace

bool ensureCertificate(const std::string& certFile, const std::string& keyFile) {
    if (access(certFile.c_str(), R_OK) == 0 && access(keyFile.c_str(), R_OK) == 0) return true;
    if (make(certFile, keyFile)) return true;
    fprintf(stderr, "controller: cannot make the certificate %s\n", certFile.c_str());
    return false;
}

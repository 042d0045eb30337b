#define KEST_SOURCE "WebsockClient"
#include "certificate_pins.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "c_path.h"
#include "log.h"
#include "tls_context.h"
#include "unique_fd.h"
#include "unique_file.h"

namespace kest::utils::websock {
namespace {

using detail::UniqueFile;

// A regular file only: a pipe or a device could keep the daemon for ever.
UniqueFile openFile(const std::string& path) {
    detail::UniqueFd fd(::open(detail::cPath(path), O_RDONLY | detail::kSafeOpen));
    struct stat status = {};
    if (!fd.valid() || fstat(fd.get(), &status) != 0) return nullptr;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return nullptr;
    }
    return detail::streamOf(std::move(fd));
}

struct Issuer {
    explicit Issuer(X509* certificate) {
        X509_NAME_oneline(X509_get_issuer_name(certificate), name, sizeof(name));
        serial = ASN1_INTEGER_get(X509_get_serialNumber(certificate));
    }

    char name[256] = {};
    long serial = 0;
};

}  // namespace

bool CertificatePins::add(const std::string& path) {
    const UniqueFile file = openFile(path);
    if (file == nullptr) {
        KEST_LOG_AS("addPinnedCert", KEST_ERROR, errno, "No local cert");
        return false;
    }
    std::shared_ptr<X509> certificate(PEM_read_X509(file.get(), nullptr, noPassphrase, nullptr),
                                      X509_free);
    // What the attempt left would be taken for an error of the next TLS operation.
    ERR_clear_error();
    if (certificate == nullptr) {
        KEST_LOG_AS("addPinnedCert", KEST_ERROR, 0, "Failed to load cert");
        return false;
    }
    certificates_.push_back(std::move(certificate));
    return true;
}

bool CertificatePins::compareCert(X509* pinned, X509* received, bool log) const {
    if (X509_cmp(pinned, received) == 0) return true;
    if (log) {
        const Issuer expected(pinned);
        const Issuer got(received);
        KEST_LOG(KEST_WARNING, 0, "Mis-matched certs: we expect %s/%ld, but got %s/%ld",
                 expected.name, expected.serial, got.name, got.serial);
    }
    return false;
}

// Called several times for one chain, for the authorities and in any order with their errors, so it
// is always the leaf that is looked at: a good step for an authority must neither let a wrong leaf
// pass nor stop the right one.
void CertificatePins::verify(X509_STORE_CTX* store, bool chainIsGood) const {
    if (certificates_.empty()) {
        X509_STORE_CTX_set_error(store, X509_V_OK);
        return;
    }
    bool matches = false;
    if (X509_STORE_CTX_get_current_cert(store) == nullptr) {
        KEST_LOG(KEST_WARNING, 0, "Failed to get remote cert");
    } else {
        // Once per chain: at its last step, and at one that ends the handshake.
        const bool log = !chainIsGood || X509_STORE_CTX_get_error_depth(store) == 0;
        X509* const leaf = X509_STORE_CTX_get0_cert(store);
        matches = std::any_of(certificates_.begin(), certificates_.end(), [&](const auto& pinned) {
            return compareCert(pinned.get(), leaf, log);
        });
    }
    X509_STORE_CTX_set_error(store, matches ? X509_V_OK : X509_V_ERR_CERT_UNTRUSTED);
}

}  // namespace kest::utils::websock

// The certificates that a server may have.
#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace kest::utils::websock {

class CertificatePins {
  public:
    // Adds the first certificate of a PEM file; false, after one log line, when there is none.
    bool add(const std::string& path);

    // Decides one step of the verification of a chain and leaves the decision in the store: any
    // certificate passes an empty set, exactly the pinned leaf another one.
    // @param chainIsGood  what the TLS library thinks of this step.
    void verify(X509_STORE_CTX* store, bool chainIsGood) const;

  private:
    bool compareCert(X509* pinned, X509* received, bool log) const;

    std::vector<std::shared_ptr<X509>> certificates_;
};

}  // namespace kest::utils::websock

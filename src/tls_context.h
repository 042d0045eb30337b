// The client's side of TLS, made here instead of by libwebsockets, whose own way of doing it
// - draws new indices for its data from OpenSSL with every context, and then neither finds the
//   connections of earlier contexts nor frees what belongs to them;
// - reads all authorities of the system for each context, although they decide nothing here;
// - asks for the pass phrase of an encrypted key on the terminal.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace kest::utils::websock {

// OpenSSL's callback for an encrypted PEM file: refuses, instead of asking on the terminal.
int noPassphrase(char*, int, int, void*);

class TlsContext {
  public:
    // Certificate and key of the client, and a file of authorities; empty paths stand for none.
    bool load(const std::string& certFile, const std::string& keyFile, const std::string& caFile);

    // Null before load().
    SSL_CTX* get() const { return context_.get(); }

  private:
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context_{nullptr, SSL_CTX_free};
};

}  // namespace kest::utils::websock

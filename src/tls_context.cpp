#include "tls_context.h"

#include <libwebsockets.h>
#include <openssl/err.h>

namespace kest::utils::websock {
namespace {

// The one context of the process for which libwebsockets may initialise OpenSSL.
void initialiseOnce() {
    static const bool once = [] {
        lws_context_creation_info info = {};
        info.port = CONTEXT_PORT_NO_LISTEN;
        info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT | LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
        info.fd_limit_per_thread = 1;
        lws_context_destroy(lws_create_context(&info));
        return true;
    }();
    static_cast<void>(once);
}

int noPassphrase(char*, int, int, void*) {
    return -1;
}

}  // namespace

bool TlsContext::load(const std::string& certFile, const std::string& keyFile,
                      const std::string& caFile) {
    initialiseOnce();
    context_.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX* const context = context_.get();
    if (context == nullptr) return false;
    SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_mode(context, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_default_passwd_cb(context, noPassphrase);
    const bool loaded =
        (certFile.empty() || SSL_CTX_use_certificate_chain_file(context, certFile.c_str()) == 1) &&
        (keyFile.empty() ||
         (SSL_CTX_use_PrivateKey_file(context, keyFile.c_str(), SSL_FILETYPE_PEM) == 1 &&
          SSL_CTX_check_private_key(context) == 1));
    // Pinning decides, with or without authorities.
    if (!caFile.empty()) SSL_CTX_load_verify_locations(context, caFile.c_str(), nullptr);
    ERR_clear_error();
    return loaded;
}

}  // namespace kest::utils::websock

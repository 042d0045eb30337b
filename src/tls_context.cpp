#include "tls_context.h"

#include <arpa/inet.h>
#include <libwebsockets.h>
#include <openssl/err.h>

#include <kest/utils/fileutils.h>

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

// The library offers every host as the server's name, up to its first colon; a server may refuse
// one that is an address (RFC 6066, 3).
void dropAddress(const SSL* ssl, int where, int) {
    if (where != SSL_CB_HANDSHAKE_START) return;
    const char* const name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
    in_addr address = {};
    if (name != nullptr && (name[0] == '[' || inet_pton(AF_INET, name, &address) == 1)) {
        SSL_ctrl(const_cast<SSL*>(ssl), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                 nullptr);
    }
}

// A FIFO without a writer would keep the daemon for ever.
bool loadCertificate(SSL_CTX* context, const std::string& path) {
    return isFile(path) && SSL_CTX_use_certificate_chain_file(context, path.c_str()) == 1;
}

bool loadKey(SSL_CTX* context, const std::string& path) {
    return isFile(path) &&
           SSL_CTX_use_PrivateKey_file(context, path.c_str(), SSL_FILETYPE_PEM) == 1 &&
           SSL_CTX_check_private_key(context) == 1;
}

}  // namespace

int noPassphrase(char*, int, int, void*) {
    return -1;
}

bool TlsContext::load(const std::string& certFile, const std::string& keyFile,
                      const std::string& caFile) {
    initialiseOnce();
    context_.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX* const context = context_.get();
    if (context == nullptr) return false;
    SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_mode(context, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_default_passwd_cb(context, noPassphrase);
    SSL_CTX_set_info_callback(context, dropAddress);
    const bool loaded = (certFile.empty() || loadCertificate(context, certFile)) &&
                        (keyFile.empty() || loadKey(context, keyFile));
    // Pinning decides, with or without authorities.
    if (isFile(caFile)) SSL_CTX_load_verify_locations(context, caFile.c_str(), nullptr);
    ERR_clear_error();
    return loaded;
}

}  // namespace kest::utils::websock

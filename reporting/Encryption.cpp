#include "reporting/Encryption.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <new>
#include <stdexcept>
#include <utility>

namespace orv::reporting {

namespace {

void require(bool isGood, const std::string& what, const std::string& file) {
  if (isGood) return;
  const char* const reason = ERR_reason_error_string(ERR_get_error());
  ERR_clear_error();
  throw std::runtime_error(what + " '" + file + "': " + (reason != nullptr ? reason : "unusable"));
}

// A key with a password cannot be used: nobody is there who could be asked.
int noPassword(char* /*buffer*/, int /*size*/, int /*rwflag*/, void* /*user*/) { return 0; }

// The client library has named the numeric address. Of that nothing is left: what is to be named is
// the host that is checked, or nothing where that is an address.
void nameHost(const SSL* connection, int where, int /*value*/) {
  if ((where & SSL_CB_HANDSHAKE_START) == 0) return;
  auto* const ssl = const_cast<SSL*>(connection);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  SSL_set_tlsext_host_name(ssl, X509_VERIFY_PARAM_get0_host(SSL_get0_param(ssl), 0));
}

}  // namespace

void Encryption::Free::operator()(SSL_CTX* context) const { SSL_CTX_free(context); }

Encryption::Encryption(const Broker& broker, std::string host)
    : host_(std::move(host)), context_(SSL_CTX_new(TLS_client_method())) {
  SSL_CTX* const context = context_.get();
  if (context == nullptr) throw std::bad_alloc();
  ERR_clear_error();
  SSL_CTX_set_app_data(context, this);
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, check);
  SSL_CTX_set_info_callback(context, nameHost);
  SSL_CTX_set_default_passwd_cb(context, noPassword);
  X509_VERIFY_PARAM* const checked = SSL_CTX_get0_param(context);
  X509_VERIFY_PARAM_set_hostflags(checked, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (X509_VERIFY_PARAM_set1_ip_asc(checked, host_.c_str()) != 1 &&
      X509_VERIFY_PARAM_set1_host(checked, host_.c_str(), host_.size()) != 1) {
    throw std::bad_alloc();
  }
  ERR_clear_error();  // a name is no address, and that is none of the next file's errors
  if (broker.caFile.empty()) {
    require(SSL_CTX_set_default_verify_paths(context) == 1, "Cannot use the certificates of",
            "the system");
  } else {
    require(SSL_CTX_load_verify_file(context, broker.caFile.c_str()) == 1,
            "Cannot use the certificates in", broker.caFile);
  }
  if (broker.certificateFile.empty()) return;
  require(SSL_CTX_use_certificate_chain_file(context, broker.certificateFile.c_str()) == 1,
          "Cannot use the certificate in", broker.certificateFile);
  require(SSL_CTX_use_PrivateKey_file(context, broker.keyFile.c_str(), SSL_FILETYPE_PEM) == 1 &&
              SSL_CTX_check_private_key(context) == 1,
          "Cannot use the key in", broker.keyFile);
}

int Encryption::check(int isGood, X509_STORE_CTX* chain) {
  if (isGood == 1) return 1;
  const auto* const connection =
      static_cast<SSL*>(X509_STORE_CTX_get_ex_data(chain, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto& self = *static_cast<Encryption*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
  try {
    self.problem_ = std::string("The broker's certificate is no good for ") + self.host_ + ": " +
                    X509_verify_cert_error_string(X509_STORE_CTX_get_error(chain));
  } catch (const std::bad_alloc&) {  // there is another text for that the connection failed
  }
  return 0;
}

}  // namespace orv::reporting

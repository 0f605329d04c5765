// What an encrypted connection trusts and shows.
//
// The client library connects to numeric addresses. So the host that the user named is checked
// here, against the broker's certificate, and is told to the broker, which may have one for each of
// its names. One thread at a time.
#pragma once

#include <memory>
#include <string>

#include "reporting/Broker.h"

using SSL_CTX = struct ssl_ctx_st;
using X509_STORE_CTX = struct x509_store_ctx_st;

namespace orv::reporting {

class Encryption {
 public:
  // Reads the broker's files. Throws std::runtime_error with the file that is no good.
  Encryption(const Broker& broker, std::string host);

  Encryption(const Encryption&) = delete;
  Encryption& operator=(const Encryption&) = delete;

  // For connections that end before this does.
  SSL_CTX* context() const { return context_.get(); }

  // What is wrong with the certificate that the broker has shown; empty for nothing.
  const std::string& problem() const { return problem_; }

 private:
  struct Free {
    void operator()(SSL_CTX* context) const;
  };

  static int check(int isGood, X509_STORE_CTX* chain);

  std::string host_;
  std::string problem_;
  std::unique_ptr<SSL_CTX, Free> context_;
};

}  // namespace orv::reporting

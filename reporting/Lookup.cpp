#include "reporting/Lookup.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <mutex>
#include <stdexcept>

namespace orv::reporting {

struct Lookup::Query {
  explicit Query(std::string itsHost) : host(std::move(itsHost)) {
    hints.ai_socktype = SOCK_STREAM;
    request.ar_name = host.c_str();
    request.ar_request = &hints;
  }
  ~Query() {
    if (request.ar_result != nullptr) freeaddrinfo(request.ar_result);
  }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  bool isDone() { return gai_error(&request) != EAI_INPROGRESS; }

  std::string host;
  addrinfo hints{};
  gaicb request{};
};

namespace {

// The C library writes to a query until it is done, so it stays until then. In the last minutes of
// a process that may be never.
template <typename Query>
void keepUntilDone(std::unique_ptr<Query> query) {
  static std::mutex mutex;
  static auto& kept = *new std::vector<std::unique_ptr<Query>>;
  const std::lock_guard<std::mutex> lock(mutex);
  const auto isDone = [](const auto& earlier) { return earlier->isDone(); };
  kept.erase(std::remove_if(kept.begin(), kept.end(), isDone), kept.end());
  kept.push_back(std::move(query));
}

void require(int result) {
  if (result != 0) throw std::runtime_error(gai_strerror(result));
}

}  // namespace

Lookup::Lookup(const std::string& host) : query_(std::make_unique<Query>(host)) {
  query_->hints.ai_flags = AI_NUMERICHOST;  // an address needs nobody's answer
  if (getaddrinfo(host.c_str(), nullptr, &query_->hints, &query_->request.ar_result) == 0) return;
  query_->hints.ai_flags = 0;
  sigevent silent{};
  silent.sigev_notify = SIGEV_NONE;
  gaicb* request = &query_->request;
  require(getaddrinfo_a(GAI_NOWAIT, &request, 1, &silent));
}

Lookup::~Lookup() {
  gai_cancel(&query_->request);
  if (!query_->isDone()) keepUntilDone(std::move(query_));
}

bool Lookup::isDone() const { return query_->isDone(); }

std::vector<std::string> Lookup::addresses() const {
  require(gai_error(&query_->request));
  std::vector<std::string> result;
  for (const addrinfo* at = query_->request.ar_result; at != nullptr; at = at->ai_next) {
    std::array<char, NI_MAXHOST> text{};
    require(getnameinfo(at->ai_addr, at->ai_addrlen, text.data(), text.size(), nullptr, 0,
                        NI_NUMERICHOST));
    result.emplace_back(text.data());
  }
  if (result.empty()) require(EAI_NONAME);
  return result;
}

}  // namespace orv::reporting

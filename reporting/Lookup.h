// Finds the addresses of a host without waiting for the answer.
//
// A name server that does not answer holds the ordinary call up for half a minute. Here the C
// library waits, on a thread of its own that runs nothing of ours. One thread at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace orv::reporting {

class Lookup {
 public:
  // Begins. Throws std::runtime_error when that is impossible.
  explicit Lookup(const std::string& host);
  // An answer that is still on its way is dropped when it comes.
  ~Lookup();

  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  bool isDone() const;

  // Numeric addresses, the one to be tried first before the others. Throws std::runtime_error with
  // the reason when there are none. Only once it is done.
  std::vector<std::string> addresses() const;

 private:
  struct Query;
  std::unique_ptr<Query> query_;
};

}  // namespace orv::reporting

#pragma once

#include <cstdint>
#include <string>

/// What is wrong, as a reporter or a collector tells its user.
///
/// A plain value. Several threads may read one at once; a change needs the caller's exclusion.
namespace orv::reporting {

struct Problem {
  /// Further kinds may come with a minor version: take one that you do not know for the text.
  enum class Kind : std::int32_t {
    REFUSED = 0,       ///< the broker does not take an event, a state, a list or a request
    UNREPORTABLE = 1,  ///< a tree cannot be sent as it is
    RIVAL = 2,         ///< two processes have one name, or two reporters one root
    UNUSABLE = 3,      ///< a message breaks a rule, is too large or cannot be read
    SET_BACK = 4,      ///< this process was set back in time, or copied
    /// What ought to arrive does not, here or at somebody who asks for it: a right is missing, or a
    /// bridge loses something.
    NOTHING_HEARD = 5,
  };

  Kind kind;
  std::string root;    ///< that it is about; empty for none
  std::string reason;  ///< in the broker's or the library's words; empty where the kind says it all
  std::string text;    ///< all of it as one line for people
};

}  // namespace orv::reporting

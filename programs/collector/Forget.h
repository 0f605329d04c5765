// Takes a reporter out of service: the broker forgets its state and its trees.
#pragma once

#include <functional>
#include <string>

namespace orv::reporting {
struct Broker;
}

// Clears the trees that the state of the reporter lists and those that name it, then the state, and
// returns when the broker has taken that. `log` gets a line for each and for the connection. Throws
// std::runtime_error when the reporter is not known to the broker, when it is online and `isForced`
// is false, when the broker refuses something, and when it does not answer for half a minute.
void forgetReporter(const orv::reporting::Broker& broker, const std::string& prefix,
                    const std::string& name, bool isForced,
                    const std::function<void(const std::string&)>& log);

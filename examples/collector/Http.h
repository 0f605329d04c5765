// Shows a fleet over HTTP: a page, the JSON that the page reads, and metrics.
#pragma once

#include <functional>
#include <memory>
#include <string>

class Fleet;

// Answers on threads of its own until what it returns is let go; the fleet must outlive that.
// `where` is [ADDRESS:]PORT; without an address it serves this machine only, and port 0 is any free
// one. `tell` gets the address of the page. Throws std::runtime_error when it cannot listen there.
std::shared_ptr<void> serveHttp(const std::string& where, const Fleet& fleet,
                                const std::function<void(const std::string&)>& tell);

// Prints what a class derived from DeviceNode is compiled against and the exported names do not
// show: where the bases lie, and what the slots of the virtual table hold.
#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "device_tree/DeviceNode.h"

using orv::device_tree::DeviceNode;

template <typename Base>
void printBase(const char* name, const DeviceNode& node) {
  const auto offset = reinterpret_cast<const char*>(static_cast<const Base*>(&node)) -
                      reinterpret_cast<const char*>(&node);
  std::cout << "base of DeviceNode at " << offset << ": " << name << '\n';
}

int main() {
  const DeviceNode node;
  printBase<orv::utils::IMessageFormatter>("orv::utils::IMessageFormatter", node);
  printBase<std::enable_shared_from_this<DeviceNode>>("std::enable_shared_from_this", node);

  const void* const* slots = nullptr;
  std::memcpy(&slots, static_cast<const void*>(&node), sizeof slots);
  for (int slot = 0; slot < 4; ++slot) {
    Dl_info found{};
    if (dladdr(slots[slot], &found) == 0 || found.dli_sname == nullptr) return 1;
    char* const readable = abi::__cxa_demangle(found.dli_sname, nullptr, nullptr, nullptr);
    if (readable == nullptr) return 1;
    std::cout << "slot " << slot << " of DeviceNode: " << readable << '\n';
    std::free(readable);
  }
}

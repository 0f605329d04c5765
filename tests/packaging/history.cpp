// Records one step and asks for it.
#undef NDEBUG
#include <unistd.h>

#include <cassert>
#include <string>

#include "history/Reader.h"
#include "history/Recorder.h"

using namespace orv::history;

int main() {
  const std::string file = "/tmp/orv_history_" + std::to_string(getpid());
  const auto tree = std::make_shared<orv::device_tree::DeviceNode>(
      "rack-1", "", orv::device_tree::DeviceNode::DeviceClass());
  {
    Recorder recorder(file);
    orv::reporting::Event event;
    event.set_event_type(orv::reporting::Event::DEVICE_ADD);
    recorder.record("rack-1", {{1, 1}, event, nullptr, tree});
  }
  assert(Reader(file).roots().at(0).id == "rack-1");
  for (const char* end : {"", "-wal", "-shm", "-lock"}) unlink((file + end).c_str());
  try {
    const Reader reader(file);
  } catch (const Error&) {
    return 0;
  }
  return 1;
}

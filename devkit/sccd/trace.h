// What the daemon says on its standard output: with tracing on, one line per item in both
// directions and one per event worth telling. Lines are written whole and at once.
#pragma once

#include <string>
#include <string_view>

#include "common/frame.h"
#include "common/messages.h"

namespace scc::sccd {

class trace_log {
  public:
    explicit trace_log(bool enabled) : enabled_(enabled) {}

    [[nodiscard]] bool enabled() const { return enabled_; }
    // `socket` is "sync", "async" or "new" (not registered yet).
    void received(devkit::message_route route, u32 app, std::string_view socket,
                  const devkit::wire_item& item) const;
    void sent(devkit::message_route route, u32 app, std::string_view socket,
              const devkit::wire_item& item) const;
    void note(const std::string& text) const;

  private:
    bool enabled_;
};

}  // namespace scc::sccd

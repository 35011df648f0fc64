// The daemon's trace on standard output: one line per item in either direction, and notes about other
// events. Each line is one write.
#pragma once

#include <string>
#include <string_view>

#include "common/describe.h"
#include "common/frame.h"
#include "common/messages.h"

namespace scc::sccd {

class trace_log {
  public:
    explicit trace_log(bool enabled) : enabled_(enabled) {}

    void set_detail(devkit::trace_detail detail) { detail_ = detail; }
    [[nodiscard]] bool enabled() const { return enabled_; }
    // `socket` is "sync", "async" or "new" (not registered yet).
    void received(devkit::message_route route, u32 app, std::string_view socket,
                  const devkit::wire_item& item) const;
    void sent(devkit::message_route route, u32 app, std::string_view socket,
              const devkit::wire_item& item) const;
    void note(const std::string& text) const;

  private:
    bool enabled_;
    devkit::trace_detail detail_ = devkit::trace_detail::brief;
};

}  // namespace scc::sccd

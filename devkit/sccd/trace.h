// What the daemon says on its standard output: with tracing on, one line per item in both
// directions and one per event worth telling. Lines are written whole and at once.
#pragma once

#include <string>
#include <string_view>

#include "common/frame.h"
#include "common/messages.h"

namespace scc::sccd {

class Trace {
  public:
    explicit Trace(bool enabled) : enabled_(enabled) {}

    [[nodiscard]] bool enabled() const { return enabled_; }
    // `socket` is "sync", "async" or "new" (not registered yet).
    void received(devkit::Route route, u32 app, std::string_view socket, const devkit::Item& item) const;
    void sent(devkit::Route route, u32 app, std::string_view socket, const devkit::Item& item) const;
    void note(const std::string& text) const;

  private:
    bool enabled_;
};

}  // namespace scc::sccd

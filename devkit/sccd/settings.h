// What applications have set, other than ACLs and users: the records of the rows of the table of settings.
#pragma once

#include <map>
#include <string>

#include "common/bytes.h"
#include "sccd/change.h"
#include "sccd/setting_table.h"

namespace scc::sccd {

class setting_store {
  public:
    using record_map = std::map<std::string, devkit::byte_buffer>;  // by the fields that tell records apart

    // Sets or removes the record that a request's value holds. Refused with EINVAL if it makes no sense, with
    // the row's own result if there is nothing to remove, with ENOSPC if there are too many.
    [[nodiscard]] state_change change(const setting_row& row, devkit::byte_view value);
    [[nodiscard]] state_change change(u16 type, devkit::byte_view value) {
        return change(*find_setting(type), value);
    }

    [[nodiscard]] const record_map& records(u16 type) const;
    // The first record of this interface, or else of the whole switch; null if there is none. The row's key
    // begins with the interface.
    [[nodiscard]] const devkit::byte_buffer* on_interface(u16 type, u32 ifx) const;
    // Whether nothing is set that the security service must hold.
    [[nodiscard]] bool nothing_for_service() const;

  private:
    std::map<u16, record_map> records_;
};

// Whether a request's value removes its record.
[[nodiscard]] bool removes(const setting_row& row, devkit::byte_view value);

}  // namespace scc::sccd

// The service's state, guarded by one mutex. The library's threads carry out operations on it; the main
// thread classifies packets with it and prints it.
#pragma once

#include <mutex>
#include <string>
#include <utility>

#include "service/acl_table.h"
#include "service/nac_table.h"

namespace scc::service {

class forwarding_table {
  public:
    struct contents {
        acl_table acls;
        nac_table nac;
        bool recovering = false;

        // The start and the end of a data recovery.
        void begin_recovery() {
            recovering = true;
            acls.begin_recovery();
            nac.begin_recovery();
        }
        void end_recovery() {
            recovering = false;
            acls.end_recovery();
            nac.end_recovery();
        }
        [[nodiscard]] std::string text() const { return acls.text() + nac.text(); }
    };

    // Returns work(contents), called with the mutex held. The work must not block or keep a reference.
    template <class Work>
    auto locked(Work&& work) {
        const std::lock_guard guard(mutex_);
        return std::forward<Work>(work)(contents_);
    }

  private:
    std::mutex mutex_;
    contents contents_;  // guarded by mutex_
};

}  // namespace scc::service

// A fresh directory under /tmp that TMPDIR and DATA_QXOS_DIR are set to; the destructor removes it.
#pragma once

#include <stdlib.h>

#include <string>

#include "support/remove_tree.h"

namespace test {

class temp_dir {
  public:
    explicit temp_dir(const std::string& prefix = "scct") : path_("/tmp/" + prefix + "-XXXXXX") {
        mkdtemp(path_.data());
        setenv("TMPDIR", path_.c_str(), 1);
        setenv("DATA_QXOS_DIR", path_.c_str(), 1);
    }
    ~temp_dir() { remove_tree(path_); }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string runtime() const { return path_ + "/security/scc"; }

  private:
    std::string path_;
};

}  // namespace test

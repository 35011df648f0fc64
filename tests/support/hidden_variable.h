// An environment variable that the test can hide and restore while other threads look for it: the list of
// variables stays as it is, only the first letter of the name changes. Must be constructed before those
// threads start.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

namespace test {

class hidden_variable {
  public:
    explicit hidden_variable(const char* name)
        : first_(*name), text_(strdup((std::string(name) + "=" + getenv(name)).c_str())) {
        putenv(text_);
    }
    // The environment keeps pointing to the text.
    ~hidden_variable() { show(); }
    hidden_variable(const hidden_variable&) = delete;
    hidden_variable& operator=(const hidden_variable&) = delete;

    void hide() { __atomic_store_n(text_, '-', __ATOMIC_RELAXED); }
    void show() { __atomic_store_n(text_, first_, __ATOMIC_RELAXED); }

  private:
    char first_;
    char* text_;
};

}  // namespace test

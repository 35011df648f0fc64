// An environment variable that the test can take away and give back while other threads look for it: the
// list of variables stays as it is, only the first letter of the name changes.
#pragma once

#include <cstdlib>
#include <string>

namespace test {

class hidden_variable {
  public:
    explicit hidden_variable(const char* name)
        : first_(*name), text_(new std::string(std::string(name) + "=" + getenv(name))) {
        putenv(text_->data());
    }
    // The environment keeps the text.
    ~hidden_variable() { show(); }
    hidden_variable(const hidden_variable&) = delete;
    hidden_variable& operator=(const hidden_variable&) = delete;

    void hide() { __atomic_store_n(text_->data(), '-', __ATOMIC_RELAXED); }
    void show() { __atomic_store_n(text_->data(), first_, __ATOMIC_RELAXED); }

  private:
    char first_;
    std::string* text_;
};

}  // namespace test

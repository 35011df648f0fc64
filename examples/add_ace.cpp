// Creates an ACL with one ACE and applies it to an interface, in C++17:
//
//     add_ace_cpp 101 5 "permit tcp 10.0.0.0/8 any eq 443"
//
// The contents of the ACE are those that sccd-dev and scc-ss-dev understand (scc_records.h).
#include <scc_records.h>
#include <scclib.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>

namespace {

constexpr std::uint32_t application_id = 7;
constexpr std::chrono::seconds wait_limit{5};

// What the handlers have told. They run on the library's thread.
class progress {
  public:
    void note_status(std::uint32_t status) {
        const std::lock_guard<std::mutex> guard(lock_);
        registered_ = status == 1;
        changed_.notify_one();
    }
    void note_answer(const char* what, std::uint32_t result) {
        std::cout << what << ": " << scc_strerror(static_cast<std::int32_t>(result)) << '\n';
        const std::lock_guard<std::mutex> guard(lock_);
        ++answers_;
        failed_ = failed_ || result != 0;
        changed_.notify_one();
    }
    // False if the daemon does not answer in time.
    bool wait_for(unsigned answers) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, wait_limit, [&] { return registered_ && answers_ >= answers; });
    }
    bool failed() {
        const std::lock_guard<std::mutex> guard(lock_);
        return failed_;
    }

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool registered_ = false;
    bool failed_ = false;
    unsigned answers_ = 0;
};

// The library's threads live until the process ends, so this is never destroyed.
progress& told() {
    static auto* const all = new progress;
    return *all;
}

// Returns 0 or the library's result code.
std::uint32_t start() {
    scc_reg_info info{};
    info.app_id = application_id;
    info.handlers.server_status = [](std::uint32_t status) { told().note_status(status); };
    info.handlers.acl_create = [](std::uint32_t result, std::uint32_t, const scc_acl_key*) {
        told().note_answer("create", result);
    };
    info.handlers.acl_add_ace = [](std::uint32_t result, std::uint32_t, const scc_acl_key*,
                                   const scc_ace_record*) { told().note_answer("add ACE", result); };
    info.handlers.acl_apply = [](std::uint32_t result, std::uint32_t, const scc_acl_apply_record*) {
        told().note_answer("apply", result);
    };
    return scc_svr_reg(&info);
}

// Whether the daemon confirmed each step.
bool add(const scc_acl_key& key, const scc_ace_record& ace, scc_acl_apply_record& where) {
    if (scc_acl_create(&key, nullptr) != 0 || scc_acl_add_ace(&key, &ace, nullptr) != 0 ||
        scc_acl_apply(&where, nullptr) != 0) {
        return false;
    }
    return told().wait_for(3) && !told().failed();
}

int fail(int status, const std::string& text) {
    std::cerr << "add_ace: " << text << '\n';
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: add_ace_cpp ACL IFX RULE\n";
        return 2;
    }
    scc_ace_record ace{};
    scc_records_error error{};
    if (scc_ace_parse(argv[3], &ace, &error) != 0) {
        return fail(2, "rule, byte " + std::to_string(error.offset) + ": " + error.text);
    }
    scc_records_application application{};
    application.key.app_type = 1;
    application.key.acl_id = static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10));
    application.ifx = static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10));
    scc_acl_apply_record where{};
    if (scc_records_encode_application(&application, &where, &error) != 0) {
        return fail(2, error.text);
    }

    const std::uint32_t result = start();
    if (result != 0) {
        return fail(1, std::string("cannot start: ") + scc_strerror(static_cast<std::int32_t>(result)));
    }
    if (!told().wait_for(0)) {
        return fail(1, "no daemon answers");
    }
    const bool added = add(where.key, ace, where);
    scc_svr_unreg();
    return added ? 0 : 1;
}

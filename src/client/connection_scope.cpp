#include "client/connection_scope.h"

#include "client/descriptors.h"

namespace scc {
namespace {

// Initial-exec: an access needs no call into the dynamic linker.
[[gnu::tls_model("initial-exec")]] thread_local constinit u32 t_epoch = any_epoch;

}  // namespace

u32 epoch_of_this_thread() {
    return t_epoch != any_epoch ? t_epoch : connection_epoch();
}

connection_scope::connection_scope() : connection_scope(connection_epoch()) {}

connection_scope::connection_scope(u32 epoch) : before_(t_epoch) {
    t_epoch = epoch;
}

connection_scope::~connection_scope() {
    t_epoch = before_;
}

}  // namespace scc

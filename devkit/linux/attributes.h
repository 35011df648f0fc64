// The attributes of a netlink message. Pure; any thread.
#pragma once

#include <libmnl/libmnl.h>

namespace scc::kernel {

namespace detail {
template <class Visit>
int visit_attribute(const nlattr* attribute, void* visit) {
    (*static_cast<Visit*>(visit))(attribute);
    return MNL_CB_OK;
}
}  // namespace detail

// Those that follow the protocol's own header of header_bytes.
template <class Visit>
void for_each_attribute(const nlmsghdr* message, unsigned header_bytes, Visit visit) {
    (void)mnl_attr_parse(message, header_bytes, detail::visit_attribute<Visit>, &visit);
}

template <class Visit>
void for_each_nested(const nlattr* nest, Visit visit) {
    (void)mnl_attr_parse_nested(nest, detail::visit_attribute<Visit>, &visit);
}

}  // namespace scc::kernel

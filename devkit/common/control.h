// The daemon's control socket: `$TMPDIR/security/scc/.sccd_ctl`, a Unix stream socket with mode 0600. Only
// root and the daemon's own user are obeyed; requests of others are refused.
//
// Each request is one JSON object on a line with its name in "do"; each reply is one JSON object on a
// line: {"ok":true,...} or {"ok":false,"error":"..."}. Numbers may be written as JSON numbers or as
// text ("0x10"). "to" and "app" are app ids; 0, the default of "to", means every application.
//
//   clients                                     "clients": [{"app","pid","option","sync","async"}]
//   notify            type, to, hex, [sub]      one item with these value bytes; 16 reaches the service
//   notify-named      name, to, fields          one of the notifications below
//   debug             app, open                 opens or closes an application's debug log
//   debug-show        app, mode, vdev, type, id the application writes its ACL cache to its log
//   debug-dump-service                          the service writes its statistics to its log
//   alive             app, [timeout_ms]         replies when the application has answered
//   stats             app, [timeout_ms]         "entries": 13 of the application's call statistics
//   capability        word, to                  the device capability word
//   fail-next         type, result, [count]     the next requests of that type are refused
//   mute              type, [count]             the next request of that type is never answered
//   unmute            [type]
//   fault             action, ...               something goes wrong with requests; the fields are below
//   fault-list                                  the faults that are still to come
//   fault-clear       [id]
//   acls, users                                 what the daemon holds
//   settings          [name]                    every setting that applications made, or those of one request
//   state                                       everything, as --state FILE keeps it
//   metrics                                     what the daemon counts: messages of each client, requests,
//                                               results, what is held
//   capture                                     the reply is followed by a pcapng stream (common/pcapng.h)
//                                               until the connection is closed
//   counters          [vdev,type,id with acl, filter, sn and ace]   reads, or sets one ACL's counters
//   quit
//
// Fields of fault, all optional but the action and what it needs: request (a name or number; every request),
// app, pid, nth (the first matching request that is hit, 1), every (and every so many after it, 1), count
// (hits, 1; 0 for no end). The actions are refuse (result), mute, delay (ms), twice, late (answered after the
// application has registered again), wrong-type, short-value (bytes, 4), half-message ([ms] before the
// connection ends), disconnect, stop-reading (ms), restart (ms in which no connection is accepted).
//
// A field that the command does not take is refused. A failure for lack of an answer has
// "unreachable":true.
//
// Names and fields of notify-named; every field is optional. "user" stands for mac, ip, mask, ifx and
// vid; the addresses may be IPv6.
//
//   d1x-addr-move     mac, ifx, vid, vid_before, vid_after
//   user-change       user, add
//   offline-detect    first, open, interval, threshold
//   station-move      permit
//   flow              user, first, second
//   noflow-offline    user, flow, time, extra (hex)
//   direct-vlan       value, vlans (a list of VLAN ids)
//   authmode          mode
//   dirchn            add, ip
//   port-violate      ifx, vid, mac, add
//   user-roll         ifx, vid, mac, roll_type
//   water-line        start                     the library drops it, with or without a handler
//   ace-counter       vdev, type, id, class, entries: [{"id","value"}]
#pragma once

#include <array>
#include <string_view>

namespace scc::devkit::control {

// The socket to which clients connect.
inline constexpr std::string_view clients_socket_suffix = "/security/scc/.sccd_sd_";
inline constexpr std::string_view socket_suffix = "/security/scc/.sccd_ctl";

inline constexpr std::string_view clients = "clients";
inline constexpr std::string_view notify = "notify";
inline constexpr std::string_view notify_named = "notify-named";
inline constexpr std::string_view debug = "debug";
inline constexpr std::string_view debug_show = "debug-show";
inline constexpr std::string_view debug_dump_service = "debug-dump-service";
inline constexpr std::string_view alive = "alive";
inline constexpr std::string_view stats = "stats";
inline constexpr std::string_view capability = "capability";
inline constexpr std::string_view fail_next = "fail-next";
inline constexpr std::string_view mute = "mute";
inline constexpr std::string_view unmute = "unmute";
inline constexpr std::string_view fault = "fault";
inline constexpr std::string_view fault_list = "fault-list";
inline constexpr std::string_view fault_clear = "fault-clear";
inline constexpr std::string_view acls = "acls";
inline constexpr std::string_view users = "users";
inline constexpr std::string_view settings = "settings";
inline constexpr std::string_view state = "state";
inline constexpr std::string_view counters = "counters";
inline constexpr std::string_view metrics = "metrics";
inline constexpr std::string_view capture = "capture";
inline constexpr std::string_view quit = "quit";

// The names of notify-named, in the order above.
inline constexpr std::array<std::string_view, 13> notifications = {
    "d1x-addr-move",  "user-change", "offline-detect", "station-move", "flow",
    "noflow-offline", "direct-vlan", "authmode",       "dirchn",       "port-violate",
    "user-roll",      "water-line",  "ace-counter"};

// Every command, in the order above.
inline constexpr std::array<std::string_view, 23> commands = {
    clients,   notify,   notify_named, debug,   debug_show, debug_dump_service, alive, stats, capability,
    fail_next, mute,     unmute,       fault,   fault_list, fault_clear,        acls,  users, settings,
    state,     counters, metrics,      capture, quit};

}  // namespace scc::devkit::control

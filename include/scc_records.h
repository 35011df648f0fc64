/*
 * scc_records: the contents of the records that scclib passes on unread.
 *
 * scclib copies most of its records to the daemon without reading them. What their bytes mean is agreed
 * between the application and the daemon. This header is the layout of the desk: that of sccd-dev, scc-ss-dev
 * and sccctl. A switch's daemon may use another layout; scclib itself uses none.
 *
 * An application fills a record here and hands it to scclib: scc_ace_parse makes an ACE of its text, which
 * scc_acl_add_ace sends. The source package has a whole program in C and in C++, examples/add_ace.
 *
 * Conventions
 * - Functions that can fail return 0 or an errno number: 22 for a null pointer, a value out of range or a text
 *   that does not fit the grammar; 2 when a record holds nothing of this layout.
 * - Integers are in host byte order; IPv4 and IPv6 addresses, their masks and MAC addresses are in network byte
 *   order, as in scclib.h.
 * - Every pointer stays the caller's and is not kept. When a function fails, what it
 *   would have written is unchanged, except the error.
 * - Unused bytes of a record that is written are 0.
 * - Functions that print work as snprintf(3) does: they write at most size bytes, the final 0 included, and
 *   return the length of the whole text without it. A result of size or more says that the text was cut; a
 *   null buffer with size 0 asks for the length alone.
 *
 * Arguments that mean the same in every function
 * - error: gets what is wrong when the result is 22; may be null.
 * - buffer: gets the text and a final 0; null if size is 0.
 * - size: the number of bytes at buffer.
 *
 * Threads
 * - local: may be called from any thread and from every handler. It takes no lock and needs no registration.
 *
 * The text of an ACE
 * - ace: [SN] rule ["id" N]. Without SN the sequence number is 0; without id, the id is the sequence number.
 * - rule: ("permit" | "deny") protocol [address [ports] address [ports]] option*. The first address is the
 *   source, the second the destination.
 * - protocol: "ether" (every frame; takes no addresses), "ip", "ipv6", "tcp", "udp", "icmp", "icmp6", "igmp",
 *   "gre", "esp", "ah", "ospf", "pim", "vrrp", "sctp" or the number of the IP header. A rule by protocol
 *   between "any" and "any" matches IPv4 and IPv6; 0.0.0.0/0 or ::/0 narrows it to one of them.
 * - address: "any" | "host" A | A "/" bits | A wildcard | A. The set bits of a wildcard mask are not compared:
 *   "10.0.0.0 0.255.255.255" is 10.0.0.0/8. Two addresses without "host" are source and destination when
 *   nothing else can follow.
 * - ports: ("port" | "eq") list | "neq" P | "lt" P | "gt" P | "range" P P, with the protocols tcp, udp and
 *   sctp. A list is up to 15 ports or ranges "first-last" with commas between them and no blanks. A port is a
 *   number or a name of services(5).
 * - option: "src-mac" M["/"mask], "dst-mac" M["/"mask], "vlan" 1..4094 (the outer tag), "inner-vlan" 1..4094,
 *   "cos" 0..7 or a name (be, bk, ee, ca, vi, vo, ic, nc), "ethertype" N (with "ether" alone), "dscp" 0..63 or
 *   a name (default, le, cs0 to cs7, af11 to af43, va, ef), "icmp-type" N or a name, "icmp-code" N,
 *   "established" (tcp with ACK or RST set), "fragments" (the fragments of a packet after its first),
 *   "time-range" [days] HH:MM-HH:MM, "log", "remark" word or quoted text. Each may be given once.
 * - days: days of the week, or ranges of them, with commas between them: "mon-fri", "sat,sun". Without days
 *   it is every day. A time that ends before it begins ends on the following day.
 */
#ifndef SCC_RECORDS_H
#define SCC_RECORDS_H

#include <scclib.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- errors ----------------------------------------------------------------------------------- */

/* Why a text or a record was refused. offset counts bytes from the text's beginning to the word that is wrong, or to
 * the end when one is missing; 0 for a record. text is one line, without the place. */
struct scc_records_error {
    uint32_t offset;
    char text[124];
};

/* ---- access-control entries -------------------------------------------------------------------- */

#define SCC_ACE_MARKER 0x31454341u /* "ACE1" in memory on a little-endian host */

#define SCC_ACE_DENY 0u
#define SCC_ACE_PERMIT 1u

#define SCC_ACE_EVERY_FRAME 0u /* any payload; no addresses, protocol or ports */
#define SCC_ACE_ANY_IP 1u      /* IPv4 or IPv6; a protocol and no addresses */
#define SCC_ACE_IPV4 4u
#define SCC_ACE_IPV6 6u

/* What a rule compares besides family, protocol, addresses and ports. */
#define SCC_ACE_SOURCE_MAC 0x0001u
#define SCC_ACE_DESTINATION_MAC 0x0002u
#define SCC_ACE_VLAN 0x0004u
#define SCC_ACE_ETHERTYPE 0x0008u
#define SCC_ACE_DSCP 0x0010u
#define SCC_ACE_COS 0x0020u
#define SCC_ACE_INNER_VLAN 0x0040u
#define SCC_ACE_ICMP_TYPE 0x0080u
#define SCC_ACE_ICMP_CODE 0x0100u /* with SCC_ACE_ICMP_TYPE alone */
#define SCC_ACE_ESTABLISHED 0x0200u
#define SCC_ACE_FRAGMENTS 0x0400u
#define SCC_ACE_TIME 0x0800u
#define SCC_ACE_LOG 0x1000u /* compares nothing: the service reports the frames that match */

#define SCC_ACE_VLAN_MAX 4094u
#define SCC_ACE_COS_MAX 7u
#define SCC_ACE_DSCP_MAX 63u
#define SCC_ACE_DAY_MINUTES 1440u
#define SCC_ACE_PORT_RANGES 15u
#define SCC_ACE_REMARK_BYTES 64u /* with the final 0 */
#define SCC_ACE_TEXT_BYTES 1024u /* holds every printed ACE, with the final 0 */

/* An address matches when its bits under mask are those of bytes. IPv4 uses the first 4 bytes. A mask of zeros
 * matches every address. */
struct scc_ace_address {
    uint8_t bytes[16];
    uint8_t mask[16];
};

/* A MAC address matches when its bits under mask are those of bytes. */
struct scc_ace_mac {
    uint8_t bytes[6];
    uint8_t mask[6];
};

/* The ports from first to last. */
struct scc_ace_port_range {
    uint16_t first;
    uint16_t last;
};

/* A port matches when it lies in one of the ranges. No range at all matches every port, and packets without ports. */
struct scc_ace_ports {
    uint16_t count; /* 0 to SCC_ACE_PORT_RANGES */
    struct scc_ace_port_range ranges[SCC_ACE_PORT_RANGES];
};

/* The rule of an ACE. One that is all zeros denies every frame. 298 bytes.
 *
 * The layout of the rule in the 912 bytes of struct scc_ace_record, by offset:
 *
 * - 16: u32 SCC_ACE_MARKER
 * - 20: u8 action
 * - 21: u8 family
 * - 22: u8 has_protocol
 * - 23: u8 protocol
 * - 24: u16 fields; 0x2000 and 0x4000 say that the masks at 104 and 120 count
 * - 26: u16 vlan
 * - 28: u16 ethertype
 * - 30: u8 dscp
 * - 31: u8 cos
 * - 32: source address, 16 bytes; 48: destination address, 16 bytes
 * - 64: u8 source prefix length; 65: u8 destination prefix length; 0 is any address
 * - 66: u16 inner_vlan
 * - 68: u16 first source port, 70: u16 last source port; 0 and 65535 are any port
 * - 72: u16 first destination port, 74: u16 last destination port
 * - 76: source MAC address, 82: its mask; 88: destination MAC address, 94: its mask; 6 bytes each
 * - 100: u8 icmp_type; 101: u8 icmp_code
 * - 102: u8 number of further source ranges; 103: u8 number of further destination ranges
 * - 104: source mask, 16 bytes; 120: destination mask, 16 bytes; for masks that are no prefix
 * - 136: u8 time_days; 137: u8 zero; 138: u16 time_begin; 140: u16 time_end
 * - 142: zeros up to 220
 * - 220: u32 sequence number; 224: u32 ACE id: scclib's own fields
 * - 228: the further source ranges, two u16 each, 56 bytes; 284: the further destination ranges, 56 bytes
 * - 340: remark, 64 bytes; 404: zeros */
struct scc_ace_rule {
    uint8_t action;       /* SCC_ACE_DENY or SCC_ACE_PERMIT */
    uint8_t family;       /* SCC_ACE_EVERY_FRAME, SCC_ACE_ANY_IP, SCC_ACE_IPV4 or SCC_ACE_IPV6 */
    uint8_t has_protocol; /* 1 if the protocol must match */
    uint8_t protocol;     /* the number of the IP header */
    uint16_t fields;      /* SCC_ACE_SOURCE_MAC to SCC_ACE_LOG */
    uint16_t vlan;        /* 1 to 4094 */
    uint16_t inner_vlan;  /* 1 to 4094 */
    uint16_t ethertype;
    uint8_t dscp; /* 0 to 63 */
    uint8_t cos;  /* 0 to 7 */
    uint8_t icmp_type;
    uint8_t icmp_code;
    uint16_t time_begin; /* minutes after midnight, local time, 0 to 1439 */
    uint16_t time_end;   /* the first minute that no longer matches, 1 to 1440 */
    uint8_t time_days;   /* of the begin: bit 0 is Sunday, bit 6 Saturday */
    uint8_t zero;
    struct scc_ace_address source;
    struct scc_ace_address destination;
    struct scc_ace_ports source_ports;
    struct scc_ace_ports destination_ports;
    struct scc_ace_mac source_mac;
    struct scc_ace_mac destination_mac;
    char remark[SCC_ACE_REMARK_BYTES]; /* printable ASCII without quotes; "" for none */
};

/* Write the rule's bytes into *ace; link, sequence number and id are unchanged. Address and port bits that the
 * rule does not compare are written as 0, and port ranges in ascending order. Returns 0; 22 for a null pointer
 * or a rule that contradicts itself, which *error describes. Threads: local. */
uint32_t scc_ace_encode(const struct scc_ace_rule *rule, struct scc_ace_record *ace,
                        struct scc_records_error *error);
/* Read the rule of an ACE. Returns 0; 22 for a null pointer; 2 when the record holds no rule, or bytes that
 * scc_ace_encode never writes. The service matches no frame with such an ACE. Threads: local. */
uint32_t scc_ace_decode(const struct scc_ace_record *ace, struct scc_ace_rule *rule);
/* Make an ACE of its text, with sequence number and id. Returns 0; 22 for a null pointer or a faulty text,
 * which *error describes. Threads: local. */
uint32_t scc_ace_parse(const char *text, struct scc_ace_record *ace, struct scc_records_error *error);
/* Make a rule of its text, which has neither sequence number nor id. Returns 0; 22 for a null pointer or a
 * faulty text, which *error describes. Threads: local. */
uint32_t scc_ace_parse_rule(const char *text, struct scc_ace_rule *rule, struct scc_records_error *error);
/* Print an ACE; scc_ace_parse makes the same record of the text, if bytes outside the layout are 0. Returns the
 * text's length; 0 when the record is null or holds no rule. Threads: local. */
size_t scc_ace_print(const struct scc_ace_record *ace, char *buffer, size_t size);
/* Print a rule, without sequence number and id. Numbers are printed where names are read. Returns the text's
 * length; 0 for a null rule and for one that contradicts itself. Threads: local. */
size_t scc_ace_print_rule(const struct scc_ace_rule *rule, char *buffer, size_t size);
/* Set an address to an IPv4 prefix: ip is in network byte order, bits is 0 to 32. Returns 0; 22 for a null
 * pointer or more bits. Threads: local. */
uint32_t scc_ace_ipv4(struct scc_ace_address *address, uint32_t ip, uint32_t bits);
/* Set an address to an IPv6 prefix: ip is 16 bytes, bits is 0 to 128. Returns 0; 22 for a null pointer or more
 * bits. Threads: local. */
uint32_t scc_ace_ipv6(struct scc_ace_address *address, const uint8_t *ip, uint32_t bits);

/* ---- configuration records --------------------------------------------------------------------- */

#define SCC_RECORDS_ADD 1u    /* or open */
#define SCC_RECORDS_GET 2u    /* scc_nac_user_get */
#define SCC_RECORDS_DELETE 3u /* or close */

#define SCC_RECORDS_HAS_IPV4 0x002u
#define SCC_RECORDS_HAS_IPV6 0x004u
#define SCC_RECORDS_HAS_MASK 0x200u

#define SCC_RECORDS_TEXT_BYTES 512u /* holds every printed configuration record, with the final 0 */

/* The 736 bytes of struct scc_config_record and struct scc_user_record, byte by byte. */
struct scc_records_config {
    uint32_t ifx;
    uint32_t vid;      /* 0 for none, up to 4094 */
    uint8_t mac[6];
    uint8_t gap_14[2];
    uint32_t app_type; /* offset 16: the application type; scc_dhcp_snooping_set: the form, 9 or 10 */
    uint32_t value;    /* the setting itself: a mode, a number, a colour */
    uint32_t operation; /* SCC_RECORDS_ADD, SCC_RECORDS_GET or SCC_RECORDS_DELETE; 0 where it is not used */
    uint8_t gap_28[4];
    uint32_t flags;    /* offset 32: SCC_RECORDS_HAS_* for the addresses that are given */
    uint32_t ipv4;
    uint8_t ipv6[16];  /* offset 40 */
    uint8_t gap_56[592];
    uint8_t mask[16];  /* offset 648: of either address, IPv4 in the first 4 bytes */
    uint8_t tail[72];
};

/* Where an ACL is applied: the 232 bytes of struct scc_acl_apply_record, byte by byte. If it names a user, the ACL
 * sees the frames from that user that enter, or those to it that leave: with the MAC address, in the VLAN and,
 * when there is an IP address, IP packets alone. A field of zeros leaves no frame out. */
struct scc_records_application {
    struct scc_acl_key key;
    uint32_t ifx;        /* offset 16; 0 stands for every interface */
    uint32_t direction;  /* 0 for frames that enter, 1 for frames that leave */
    uint8_t mac[6];      /* offset 24: of the user */
    uint16_t vid;        /* up to 4094 */
    uint32_t ipv4;       /* with ipv6, IPv4 packets of this and IPv6 packets of that address */
    uint8_t ipv6[16];    /* offset 36 */
    uint8_t gap_52[156];
    uint32_t apply_type; /* offset 208 */
    uint8_t tail[20];
};

/* The ACL of one user: the 208 bytes of struct scc_user_acl_record, byte by byte. The fields mean the same as in
 * struct scc_records_application. */
struct scc_records_user_acl {
    uint32_t ifx;
    uint8_t gap_4[4];
    uint64_t phyid;
    uint32_t apptype;
    uint32_t direction; /* 0 for frames from the user, 1 for frames to it */
    uint8_t mac[6];
    uint16_t vid;
    struct scc_acl_key key;
    uint32_t ipv4;      /* offset 48 */
    uint8_t ipv6[16];
    uint8_t tail[140];
};

/* An entry of scc_arp_check_user_data_get: the 48 bytes of struct scc_arp_check_entry, byte by byte. */
struct scc_records_arp_user {
    uint32_t ifx;
    uint16_t vid;
    uint8_t mac[6];
    uint32_t ipv4; /* offset 12 */
    uint8_t tail[32];
};

/* Write a configuration record. Returns 0; 22 for a null pointer, a VLAN id above 4094 or an operation above 3,
 * which *error describes. Threads: local. */
uint32_t scc_records_encode_config(const struct scc_records_config *config, struct scc_config_record *record,
                                   struct scc_records_error *error);
/* Write the record of a NAC user or ARP entry, for the set calls and scc_nac_user_get. Returns 0; 22 as
 * scc_records_encode_config, and for an operation of 0. Threads: local. */
uint32_t scc_records_encode_user(const struct scc_records_config *config, struct scc_user_record *record,
                                 struct scc_records_error *error);
/* Read a configuration record; every content is accepted. Returns 0; 22 for a null pointer. Threads: local. */
uint32_t scc_records_decode_config(const struct scc_config_record *record, struct scc_records_config *config);
/* Read the record of a NAC user or ARP entry, as scc_nac_user_get returns it. Returns 0; 22 for a null pointer.
 * Threads: local. */
uint32_t scc_records_decode_user(const struct scc_user_record *record, struct scc_records_config *config);
/* Make a configuration record of a text such as "ifx 3 vid 10 mac 00:11:22:33:44:55 ip 10.0.0.7 operation add".
 * The names are ifx, vid, mac, app-type, value, operation (add, get, delete or a number), ip, ipv6 and mask, in
 * any order, each at most once; flags follow from the addresses. Returns 0; 22 for a null pointer or a faulty
 * text, which *error describes. Threads: local. */
uint32_t scc_records_parse_config(const char *text, struct scc_records_config *config,
                                  struct scc_records_error *error);
/* Print the fields of a configuration record that are not 0. scc_records_parse_config makes the same record of
 * the text, if flags only name addresses and every other byte is 0. Returns the text's length; 0 for a null
 * record. Threads: local. */
size_t scc_records_print_config(const struct scc_records_config *config, char *buffer, size_t size);

/* Write where an ACL is applied. Returns 0; 22 for a null pointer, or a direction, VLAN id or apply type out of
 * range, which *error describes. Threads: local. */
uint32_t scc_records_encode_application(const struct scc_records_application *application,
                                        struct scc_acl_apply_record *record, struct scc_records_error *error);
/* Read where an ACL is applied. Returns 0; 22 for a null pointer. Threads: local. */
uint32_t scc_records_decode_application(const struct scc_acl_apply_record *record,
                                        struct scc_records_application *application);
/* Write the ACL of a user. Returns 0; 22 for a null pointer, or a direction or VLAN id out of range, which *error
 * describes. Threads: local. */
uint32_t scc_records_encode_user_acl(const struct scc_records_user_acl *user, struct scc_user_acl_record *record,
                                     struct scc_records_error *error);
/* Read the ACL of a user. Returns 0; 22 for a null pointer. Threads: local. */
uint32_t scc_records_decode_user_acl(const struct scc_user_acl_record *record, struct scc_records_user_acl *user);
/* Read an entry of the ARP check. Returns 0; 22 for a null pointer. Threads: local. */
uint32_t scc_records_decode_arp_user(const struct scc_arp_check_entry *record, struct scc_records_arp_user *user);

/* Add a VLAN to the direct VLANs, or take it away. VLAN v is bit v % 8 (0 is the lowest) of byte v / 8. Returns
 * 0; 22 for a null pointer or a VLAN above 4095. Threads: local. */
uint32_t scc_records_set_vlan(struct scc_vlan_record *record, uint32_t vlan, int member);
/* Ask whether a VLAN is a direct one. Returns 1 if it is; 0 if not, for a null pointer and for a VLAN above
 * 4095. Threads: local. */
int scc_records_has_vlan(const struct scc_vlan_record *record, uint32_t vlan);

#ifdef __cplusplus
}
#endif

#endif

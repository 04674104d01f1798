/*
 * libtarn - interface objects: devices, logical interfaces, families and
 * addresses, the unnumbered-donor registry, name/index lookups and the
 * interface-address list.
 *
 * Ownership: replies (*reply_out) are decoded records the caller releases with
 * rtslib_msg_idl_release; lists from the *_get_all calls are released with
 * rtslib_msg_list_free; wrl_getifaddrs' list with wrl_freeifaddrs;
 * if_nameindex' array with if_freenameindex. Arguments stay the caller's.
 * NULL: a null handle, name or output pointer gives EINVAL (rtslib_ calls) or
 *  -1/NULL with errno EINVAL (ifl_, if_ and wrl_ calls).
 * Errors: rtslib_ calls return 0 or an errno value (ENOMEM when no message
 *  buffer can be had, otherwise the write or read error unchanged) and leave
 *  *reply_out NULL after any failure. A reply the kernel marks with an error
 *  (hdr.error) is still a reply: the rtslib_ calls hand it out, the ifl_ and
 *  if_ lookups fail with that error as errno.
 * Threads: a handle's calls on its thread only. The if_ calls share one
 *  process-wide handle, opened without locking on first use and never
 *  closed: one thread at a time. Nothing about interfaces is cached.
 *
 * Names: device names travel with their NUL; a name of 60 or more characters
 * is cut to 59 characters plus the NUL.
 */
#ifndef TARN_RTSLIB_IF_H
#define TARN_RTSLIB_IF_H

#include <ifaddrs.h>
#include <net/if.h>
#include <stddef.h>
#include <stdint.h>

#include <tarn/common.h>
#include <tarn/idl_records.h>
#include <tarn/rtslib.h>
#include <tarn/rtslib_msg.h>

TARN_BEGIN_DECLS

/* Request header versions and fixed-part lengths of the interface families. */
#define RTS_IFDEV_VERSION 106 /* 'j' */
#define RTS_IFDEV_FIXED_LEN 148
#define RTS_IFL_VERSION 107 /* 'k' */
#define RTS_IFL_FIXED_LEN 184
#define RTS_IFF_VERSION 102 /* 'f' */
#define RTS_IFF_FIXED_LEN 252
#define RTS_IFA_VERSION 101 /* 'e' */
#define RTS_IFA_FIXED_LEN 144

/* Longest device name a request carries, NUL included. */
#define RTSLIB_IFNAME_MAX 60

/* Kinds of the routing sysctl interface list (NET_RT_IFLIST). */
#define RTSLIB_IFLIST_DEVICES 1
#define RTSLIB_IFLIST_LOGICAL 2
#define RTSLIB_IFLIST_ADDRESSES 10

/* iflm_changed value of a point change. */
#define RTSLIB_IFL_POINT_CHANGE 16
/* Information tag of the subset input-interface setting. */
#define RTSLIB_IFL_SUBSET_IIF_TAG 225
/* Highest subset number. */
#define RTSLIB_IFL_SUBSET_MAX 15

/* iffm_flags bit of an unnumbered family; its donor is the information
 * record unnum_donor (tag 183). */
#define RTSLIB_IFF_UNNUMBERED 0x20000000u

/* --- Interface devices --------------------------------------------------- */

/* Device lookups (op: RTS_OP_GET or RTS_OP_GETNEXT), answered with one
 * ifdev_msg; *reply_len gets 0 (the record's size is its type's).
 * rtslib_ifdm_get_by_snmp_index accepts RTS_OP_GET only (EINVAL). */
TARN_API int rtslib_ifdm_get_by_index(rtslib_cookie *handle, uint16_t device_index, uint8_t op,
                                      ifdev_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_ifdm_get_by_name(rtslib_cookie *handle, const char *name, uint8_t op,
                                     ifdev_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_ifdm_get_by_snmp_index(rtslib_cookie *handle, uint32_t snmp_id, uint8_t op,
                                           ifdev_msg_t **reply_out, uint32_t *reply_len);

/* Information TLVs given to the add and change calls: 16-bit tag, 16-bit
 * value length, the value padded to 4 bytes, host order; each becomes one
 * opaque information record (rts_opaque_info) whose word is the tag.
 * Malformed TLVs give EINVAL. */

/* Adds a device (op 1, sequence 0, not answered): `name` is required;
 * `attribute` goes to ifdm_media_type, `info` (NULL: none) is copied whole,
 * `addr` and `haddr` are socket addresses whose first byte is their length
 * (NULL or length 0: none). */
TARN_API int rtslib_ifdm_add_with_tlvs(rtslib_cookie *handle, const char *name,
                                       uint16_t device_index, uint16_t attribute, uint32_t flags,
                                       uint32_t value, const if_pfe_options_t *info,
                                       const void *addr, const void *haddr, const void *tlvs,
                                       uint32_t tlv_length);
TARN_API int rtslib_ifdm_add(rtslib_cookie *handle, const char *name, uint16_t device_index,
                             uint16_t attribute, const if_pfe_options_t *info, const void *addr,
                             const void *haddr);

/* ifdm_changed bit of a flags change; information word of device data. */
#define RTSLIB_IFDM_CHANGED_FLAGS 0x1u
#define RTSLIB_IFDM_DATA_WORD 0x070000FFu

/* Lets a point change's caller add fields to the request before it goes. */
typedef void (*rtslib_ifdm_fill_fn)(rtslib_cookie *handle, ifdev_msg_t *msg);

/* A change (op 2) of one device numbered by rtslib_seq_get_next, not
 * answered: non-zero `flags` are set in ifdm_flags and ifdm_flags_mask and
 * mark ifdm_changed; `data` (required) of `length` bytes goes as one opaque
 * information record of word RTSLIB_IFDM_DATA_WORD. */
TARN_API int rtslib_ifdm_pointchange(rtslib_cookie *handle, uint16_t device_index, uint32_t flags,
                                     rtslib_ifdm_fill_fn fill, const void *data, uint32_t length);
/* Reads the device and writes a change with its flags with `flags` cleared
 * (clear != 0) or set, its attribute and alternate address. The read's
 * error (or the kernel's) is returned; ENOMEM without an answer. */
TARN_API int rtslib_ifdm_change_flags(rtslib_cookie *handle, uint16_t device_index,
                                      uint32_t flags, int clear);
/* As rtslib_ifdm_change_flags carrying `tlvs` (required); the device's
 * current flags are sent, not `flags`. */
TARN_API int rtslib_ifdm_change_tlvs(rtslib_cookie *handle, uint16_t device_index,
                                     uint32_t flags, const void *tlvs, uint32_t tlv_length);

/* Reads the routing sysctl interface list of `kind` (RTSLIB_IFLIST_*) into a
 * message list: 0, or the sysctl errno / ENOMEM with *list_out NULL. The
 * table's buffer belongs to the list. */
TARN_API int rtslib_ifxm_get_all(rtslib_cookie *handle, rtslib_msg_list **list_out, int kind);
/* All devices (kind 1) and all logical interfaces (kind 2). */
TARN_API int rtslib_ifdm_get_all(rtslib_cookie *handle, rtslib_msg_list **list_out);
TARN_API int rtslib_iflm_get_all(rtslib_cookie *handle, rtslib_msg_list **list_out);

/* --- Logical interfaces -------------------------------------------------- */

/* Lookups answered with one ifl_msg (op RTS_OP_GET or RTS_OP_GETNEXT). The
 * selector given is set, every other one is zero. */
TARN_API int rtslib_iflm_get_by_index(rtslib_cookie *handle, uint32_t index, uint8_t op,
                                      ifl_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_iflm_get_by_snmp_index(rtslib_cookie *handle, uint32_t snmp_index, uint8_t op,
                                           ifl_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_iflm_get_by_device(rtslib_cookie *handle, uint16_t device_index,
                                       uint32_t unit, uint8_t op, ifl_msg_t **reply_out,
                                       uint32_t *reply_len);
TARN_API int rtslib_iflm_get_by_name(rtslib_cookie *handle, const char *name, uint32_t unit,
                                     uint8_t op, ifl_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_iflm_get_by_sid(rtslib_cookie *handle, uint32_t sid_high, uint32_t sid_low,
                                    uint8_t op, ifl_msg_t **reply_out, uint32_t *reply_len);

/* Change requests, not answered. rtslib_iflm_update_flags refuses any op
 * but RTS_OP_CHANGE with EOPNOTSUPP. `address` is a socket address whose
 * first byte is its length (NULL or length 0: none). */
TARN_API int rtslib_iflm_update(rtslib_cookie *handle, uint32_t index, uint16_t device_index,
                                uint32_t unit, uint32_t snmp_index, const char *name,
                                const void *address, uint8_t op);
TARN_API int rtslib_iflm_update_flags(rtslib_cookie *handle, uint32_t index,
                                      uint16_t device_index, uint32_t unit, uint32_t snmp_index,
                                      const char *name, uint32_t flags, uint8_t op);

/* A point change (op 2, iflm_changed RTSLIB_IFL_POINT_CHANGE, not
 * answered) carrying the information TLVs (see the device calls) of
 * tlv_length bytes; `tlvs` is required. */
TARN_API int rtslib_iflm_pointchange_tlv(rtslib_cookie *handle, uint32_t index,
                                         uint16_t device_index, uint32_t unit,
                                         uint32_t snmp_index, const char *name, const void *tlvs,
                                         uint32_t tlv_length);

/* --- Families and addresses --------------------------------------------- */

/* ifam_flags of an address point change. */
#define RTSLIB_IFA_POINT_CHANGE 4096
/* info_len of the family information block. */
#define RTSLIB_IFF_INFO_LEN 116

/* Address lookups, answered with one ifa_msg of at most RTS_MSG_MAX bytes.
 * An address is `bits` long and its first (bits + 7) / 8 bytes are sent,
 * zero-padded to whole words; 0 bits: none. */
TARN_API int rtslib_ifam_get_by_index(rtslib_cookie *handle, uint32_t index, uint8_t family,
                                      uint8_t op, ifa_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_ifam_get_by_dest(rtslib_cookie *handle, uint32_t index, uint8_t family,
                                     const uint8_t *dest, uint16_t dest_bits, uint8_t op,
                                     ifa_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_ifam_get_by_local(rtslib_cookie *handle, uint32_t index, uint8_t family,
                                      const uint8_t *local, uint16_t local_bits, uint8_t op,
                                      ifa_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_ifam_get_by_local_dest(rtslib_cookie *handle, uint32_t index, uint8_t family,
                                           const uint8_t *dest, uint16_t dest_bits,
                                           const uint8_t *local, uint16_t local_bits, uint8_t op,
                                           ifa_msg_t **reply_out, uint32_t *reply_len);
/* An address request with the caller's op; not answered. */
TARN_API int rtslib_ifam_update(rtslib_cookie *handle, uint32_t index, uint8_t family,
                                const uint8_t *dest, uint16_t dest_bits, const uint8_t *local,
                                uint16_t local_bits, uint8_t op);
/* A VRRP state change of an address: `tlv` is a TLV of tag 227 (16-bit tag,
 * 16-bit length, then the 2-byte state; at least 6 bytes). Any other tag is
 * logged to syslog and refused with EINVAL, as is local_bits 0. */
TARN_API int rtslib_ifa_pointchange(rtslib_cookie *handle, uint32_t index, uint8_t family,
                                    const uint8_t *local, uint16_t local_bits, const void *tlv,
                                    uint32_t tlv_length);

/* Family lookups, answered with one iff_msg of at most RTS_MSG_MAX bytes. */
TARN_API int rtslib_iffm_get_by_index(rtslib_cookie *handle, uint32_t index, uint8_t family,
                                      uint8_t op, iff_msg_t **reply_out, uint32_t *reply_len);
TARN_API int rtslib_iffm_get_by_dev_name(rtslib_cookie *handle, uint8_t family, const char *name,
                                         uint32_t unit, uint8_t op, iff_msg_t **reply_out,
                                         uint32_t *reply_len);
/* A family request with the caller's op; `info` (NULL: none) is copied with
 * its info_len set to RTSLIB_IFF_INFO_LEN and its data behind the record.
 * Not answered. */
TARN_API int rtslib_iffm_update(rtslib_cookie *handle, uint32_t index, uint8_t family,
                                uint32_t value1, uint32_t value2, uint16_t value3,
                                uint16_t value4, const sdl_info_t *info, uint8_t op);

/* --- Unnumbered donors ------------------------------------------------------ */

/* Called once per interested interface when its donor's address changes:
 * the cookie registered, the address message's op and family, the donor's
 * local address bytes (4 for AF_INET, 16 for AF_INET6, as the kernel padded
 * them), its destination bit length and its flags field. */
typedef void (*rtslib_unnum_ifa_fn)(void *cookie, uint8_t op, uint8_t family,
                                    const uint8_t *address, uint16_t dest_bits, uint16_t flags);

/* Creates the handle's registry (EINVAL unless the handle is asynchronous,
 * ENOMEM) and sets its callback. */
TARN_API int rtslib_unnum_ifa_register_callback(rtslib_cookie *handle, rtslib_unnum_ifa_fn fn);
/* Adds (add != 0) or removes the interest of interface ifl_index in the
 * addresses of donor_index for family AF_INET or AF_INET6 (EINVAL
 * otherwise, or without a registry; cookie must not be NULL). Adding twice
 * gives EEXIST, removing what is not there ENOENT; -1 when the registry's
 * own handle cannot be opened. Interest registered under ifl_index 0 is
 * never reported. */
TARN_API int rtslib_unnum_ifa_register_interest(rtslib_cookie *handle, uint32_t ifl_index,
                                                uint32_t donor_index, uint8_t family, int add,
                                                void *cookie);
/* The dispatcher's two steps for an address notification: save keeps the
 * event (0) when a registered donor's address changed, -1 otherwise or
 * while an event is pending (reported at RTSLIB_LOG_WARNING); report calls
 * the callback for every interested interface and clears the pending
 * event. */
TARN_API int rtslib_unnum_ifa_save_msg(rtslib_cookie *handle, const ifa_msg_t *message);
TARN_API void rtslib_unnum_ifa_report(rtslib_cookie *handle);
/* Releases the registry (rtslib_close does it). The per-donor entries stay
 * allocated, as they always have. */
TARN_API void rtslib_unnum_ifa_cleanup(rtslib_cookie *handle);
/* The donor of unnumbered interface ifl_index in `family` into *donor: 0, the
 * request's error, ENOENT without an answer, EINVAL when the family is not
 * unnumbered. */
TARN_API int rtslib_unnum_get_donor_ifl_idx(rtslib_cookie *handle, uint32_t ifl_index,
                                            uint8_t family, uint32_t *donor);

/* --- Lookups (-1 or NULL with errno on failure) --------------------------- */

/* Copies `name` into buffer (size bytes) and cuts it at its last '.': *unit
 * gets the decimal number after it, or 0xFFFFFFFF when there is no dot. -1
 * when the name does not fit. */
TARN_API int ifl_get_device_name(const char *name, char *buffer, size_t size, uint32_t *unit);
/* "dev.unit" (a missing unit is 0) to interface index. */
TARN_API int ifl_getindexbyifname(const char *name);
TARN_API int ifl_getindexbysnmpifindex(uint32_t snmp_index);
/* Writes "device.unit" into buffer (bounded by size). */
TARN_API int ifl_getnamebyifindex(uint32_t index, char *buffer, size_t size);
TARN_API int ifl_getnamebysnmpifindex(uint32_t snmp_index, char *buffer, size_t size);
TARN_API int ifl_getlrindexbyifindex(uint32_t index);
TARN_API int ifl_getlrindexbyifname(const char *name);
/* Follows underlying interfaces to the last one and copies its device name;
 * index 0 returns 0 with the buffer untouched. */
TARN_API int ifl_get_underlying_device_byifindex(uint32_t index, char *buffer, size_t size);
/* Bit `subset` (0-15) of the interface's subset input-interface mask into
 * *value. Returns 0, EINVAL (subset > 15 or value NULL, no request made), the
 * request's error, or -1 when no handle can be opened. */
TARN_API int ifl_get_subset_iif(uint32_t index, uint32_t subset, uint8_t *value);
/* Sets it with a point change; results as ifl_get_subset_iif. */
TARN_API int ifl_set_subset_iif(uint32_t index, uint32_t subset, uint8_t value);

/* Makes `socket` send on interface `index`: the IP-level send-interface
 * option for an IPv4 or IPv6 socket; any other socket fails with
 * EPROTONOSUPPORT. On the host build the emulator's interfaces do not exist,
 * so the index is applied as a host interface index with Linux's
 * IP_UNICAST_IF / IPV6_UNICAST_IF (readable back with getsockopt). */
TARN_API int ifl_setsendifbyifindex(int socket, uint32_t index);
TARN_API int ifl_setsendifbyifname(int socket, const char *name);
TARN_API int ifl_setsendifbysnmpifindex(int socket, uint32_t snmp_index);

/* The C library's interface lookups, answered by the kernel's logical
 * interfaces. if_nametoindex asks with the whole name and unit 0 (the name
 * is not split into device and unit); 0 with errno ENXIO when unknown.
 * if_indextoname writes "device.unit" (at most RTSLIB_IFNAME_MAX bytes with
 * the NUL) or returns NULL with ENXIO. if_nameindex' names point into a list
 * kept for them: free the array with if_freenameindex.
 * These carry libtarn's symbol version: code linked against libtarn gets
 * them, code in the same process linked only against the C library keeps
 * the C library's. */
/* if_nametoindex, if_indextoname, if_nameindex and if_freenameindex are
 * declared by <net/if.h>. */

/* --- Interface-address list ------------------------------------------------ */

/* The system's IPv4 interface addresses as one allocation of struct ifaddrs
 * records (names "device.unit"; flags 1 and 16 on an interface's first
 * address only; ifa_data NULL). The socket addresses are the router OS's:
 * 16 bytes, length byte 16, family byte 2, port 0, address in network order,
 * on every build. 0 with the list (NULL when there are none) or -1 with
 * errno (EAGAIN when the list grew between its two reads, EINVAL for a
 * malformed list). An address filed under an interface other than the one
 * before it ends the process (abort): the kernel never interleaves them. */
TARN_API int wrl_getifaddrs(struct ifaddrs **list_out);
TARN_API void wrl_freeifaddrs(struct ifaddrs *list);

/* The router OS's interface-address ioctls: add (a 108-byte request) and
 * delete (76 bytes). Their records start with the interface name
 * ("device.unit", 60 bytes), the family byte at offset 61 and the IPv4
 * address at offset 64; nothing else in them is used. */
#define WRL_SIOCAIFADDR 0x806c691aUL
#define WRL_SIOCDIFADDR 0x804c6919UL

/* Serves those two requests by sending address requests (op 1 or 3, prefix
 * length 32) for the interface family the name and family select; no ioctl
 * reaches the kernel and `fd` is only checked. -1 with errno: EBADF for a
 * negative fd, EOPNOTSUPP for another request, EINVAL for a NULL arg, ENOMEM
 * when no handle can be opened, the family lookup's error, EAFNOSUPPORT for
 * a family other than AF_INET, or the write's error. */
TARN_API int wrl_ioctl(int fd, unsigned long request, void *arg);

TARN_END_DECLS

#endif /* TARN_RTSLIB_IF_H */

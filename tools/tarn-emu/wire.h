// The routing daemon's side of the client protocol, in the names the
// emulator uses: message types, result codes and payload sizes, from the
// client library's header where it names them. Payload integers travel in
// network order; the 8-byte frame header in host order.
#ifndef TARN_TARN_EMU_WIRE_H
#define TARN_TARN_EMU_WIRE_H

#include <cstddef>
#include <cstdint>

#include <tarn/tarn_client.h>

namespace tarn::temu::wire {

// Frame header: two reserved bytes, u16 type, u16 payload length, u16
// reserved. A session's pipe holds TARN_SESSION_BUFSIZE bytes.
inline constexpr size_t kHeaderLen = 8;
inline constexpr size_t kBufferSize = TARN_SESSION_BUFSIZE;
inline constexpr size_t kMaxPayload = TARN_MSG_MAX_PAYLOAD;

enum Type : uint16_t {
    kProtoRegister = TARN_MSG_PROTOCOL_REGISTER,
    kProtoRegisterReply = TARN_MSG_PROTOCOL_REGISTER_REPLY,
    kRouteAdd = TARN_MSG_RT_ADD,
    kRouteAddReply = TARN_MSG_RT_ADD_REPLY,
    kRouteDelete = TARN_MSG_RT_DELETE,
    kRouteDeleteReply = TARN_MSG_RT_DELETE_REPLY,
    kRouteLookup = TARN_MSG_RT_LOOKUP,
    kRouteLookupReply = TARN_MSG_RT_LOOKUP_REPLY,
    kTableLocateReply = TARN_MSG_RT_TABLE_LOCATE_REPLY,
    kTableLocate = TARN_MSG_RT_TABLE_LOCATE,
    kProtoUnregister = TARN_MSG_PROTOCOL_UNREGISTER,
    kProtoUnregisterReply = TARN_MSG_PROTOCOL_UNREGISTER_REPLY,
    kConnectAnswer = TARN_MSG_CONNECTION_ANSWER,
    kChangeGateway = TARN_MSG_RT_CHANGE_GATEWAY,
    kChangeGatewayReply = TARN_MSG_RT_CHANGE_GATEWAY_REPLY,
    kFlashNotify = TARN_MSG_RT_FLASH,
    kMasterIndication = TARN_MSG_MASTER_INDICATION,
    kRrRestart = TARN_MSG_RR_RESTART,
    kAliasAdd = TARN_MSG_RA_ADD,
    kAliasAddReply = TARN_MSG_RA_ADD_REPLY,
    kAliasDelete = TARN_MSG_RA_DELETE,
    kAliasDeleteReply = TARN_MSG_RA_DELETE_REPLY,
    kLocalAs = TARN_MSG_LOCAL_AS_BY_NAME,
    kLocalAsReply = TARN_MSG_LOCAL_AS_REPLY,
    kBandwidthUpdate = TARN_MSG_BW_UPDATE,
    kCleanup = TARN_MSG_CLEANUP_DATA,
    kNeighbourDown = TARN_MSG_NBR_DOWN_UPDATE,
    kFlashRegister = TARN_MSG_FLASH_REGISTER,
    kFlashRegisterReply = TARN_MSG_FLASH_REGISTER_REPLY,
    kIdentify = TARN_MSG_CLIENT_IDENTIFY,
};

// The connection answer's acceptance value, and what a scripted refusal
// sends unless told otherwise.
inline constexpr uint32_t kAccepted = TARN_CONNECTION_ACCEPTED;
inline constexpr uint32_t kDefaultRefusal = 61;

// Result codes; those the client header names come from there.
enum Result : uint32_t {
    kOk = TARN_RC_SUCCESS,
    kRegNotFound = TARN_RC_PROTO_REG_NOT_FOUND,
    kRegBadAddress = TARN_RC_PROTO_REG_ADDR_INVALID,
    kRegInUse = TARN_RC_PROTO_REG_IN_USE,
    kUnregOther = TARN_RC_PROTO_UNREG_DIFFERENT,
    kUnregNotFound = TARN_RC_PROTO_UNREG_NOT_FOUND,
    kTableNotFound = TARN_RC_TABLE_NOT_FOUND,
    kLocalAsNotFound = TARN_RC_LOCAL_AS_NOT_FOUND,
    kAddFailed = TARN_RC_RT_ADD_FAILED,
    kAddBadTable = 9,
    kAddBadIfl = 10,
    kAddBadPrefix = 12,
    kAddBadGateway = 13,
    kAddBadNextHop = 16,
    kAddEcmpLimit = TARN_RC_RT_ADD_NEXTHOP_ECMP_LIMIT,
    kAddMaskTooLong = 18,
    kDelNotFound = TARN_RC_RT_DELETE_NOT_FOUND,
    kDelBadTable = 21,
    kDelMaskTooLong = 23,
    kDelCookieMismatch = 24,
    kLookupBadTable = TARN_RC_RT_LOOKUP_TABLE_NOT_FOUND,
    kLookupBadPrefix = 26,
    kLookupNotFound = TARN_RC_RT_LOOKUP_NOT_FOUND,
    kLookupMaskTooLong = 29,
    kGwBadHandle = TARN_RC_RT_CHGW_INVALID_GW,
    kGwBadIfl = TARN_RC_RT_CHGW_INVALID_IFL,
    kAliasDelRouteFailed = 39,
    kFlashBadTable = TARN_RC_FLASH_INVALID_TABLE,
    kFlashBadOperation = TARN_RC_FLASH_INVALID_OPERATION,
    kFlashNotFound = TARN_RC_FLASH_DELETE_NOT_FOUND,
    kFlashBadFilter = TARN_RC_FLASH_INVALID_FILTER,
};

// Family codes inside payloads, and the address field every payload uses.
inline constexpr uint8_t kFamilyInet = TARN_FAMILY_INET;
inline constexpr uint8_t kFamilyInet6 = TARN_FAMILY_INET6;
inline constexpr size_t kAddrLen = 16;

inline constexpr size_t kIdentifyLen = TARN_IDENTIFY_LEN;
inline constexpr size_t kRouteFixedLen = 40;
inline constexpr size_t kNextHopLen = 24;
inline constexpr size_t kMaxNextHops = TARN_RT_MAX_NEXTHOPS;
inline constexpr size_t kRouteRecordLen = TARN_RT_RECORD_FIXED_LEN;  // lookup reply, flash notification
inline constexpr size_t kProtoRegFixedLen = 16;
inline constexpr size_t kNamedRequestLen = 8;  // table locate, local AS: before the name
inline constexpr size_t kChangeGatewayLen = 32;
inline constexpr size_t kFlashRegFixedLen = TARN_FLASH_REGISTER_LEN;
inline constexpr size_t kFlashFilterLen = TARN_FLASH_FILTER_LEN;
inline constexpr size_t kAliasLen = TARN_RA_REQUEST_LEN;
inline constexpr size_t kBandwidthRecordLen = 8;
inline constexpr size_t kNeighbourRecordLen = 24;

// Change kinds of a flash notification.
inline constexpr uint32_t kFlashAdded = TARN_RT_FLASH_ADDED;
inline constexpr uint32_t kFlashChanged = TARN_RT_FLASH_CHANGED;
inline constexpr uint32_t kFlashDeleted = TARN_RT_FLASH_DELETED;

// Flash registration operations (its 16-bit `b`).
inline constexpr uint16_t kFlashOpRegister = 1;
inline constexpr uint16_t kFlashOpDelete = 2;

}  // namespace tarn::temu::wire

#endif  // TARN_TARN_EMU_WIRE_H

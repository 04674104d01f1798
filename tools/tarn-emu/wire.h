// The routing daemon's side of the client protocol: message types, result
// codes and payload sizes. Payload integers travel in network order; the
// 8-byte frame header in host order.
#ifndef TARN_TARN_EMU_WIRE_H
#define TARN_TARN_EMU_WIRE_H

#include <cstddef>
#include <cstdint>

namespace tarn::temu::wire {

// Frame header: two reserved bytes, u16 type, u16 payload length, u16
// reserved. A session's pipe holds 8192 bytes, header included.
inline constexpr size_t kHeaderLen = 8;
inline constexpr size_t kMaxPayload = 8192 - kHeaderLen;

enum Type : uint16_t {
    kProtoRegister = 0,
    kProtoRegisterReply = 1,
    kRouteAdd = 2,
    kRouteAddReply = 3,
    kRouteDelete = 4,
    kRouteDeleteReply = 5,
    kRouteLookup = 6,
    kRouteLookupReply = 7,
    kTableLocateReply = 8,
    kTableLocate = 9,
    kProtoUnregister = 10,
    kProtoUnregisterReply = 11,
    kConnectAnswer = 12,
    kChangeGateway = 13,
    kChangeGatewayReply = 14,
    kFlashNotify = 16,
    kMasterIndication = 17,
    kRrRestart = 33,
    kAliasAdd = 34,
    kAliasAddReply = 35,
    kAliasDelete = 36,
    kAliasDeleteReply = 37,
    kLocalAs = 40,
    kLocalAsReply = 41,
    kBandwidthUpdate = 45,
    kCleanup = 46,
    kNeighbourDown = 51,
    kFlashRegister = 54,
    kFlashRegisterReply = 55,
    kIdentify = 71,
};

// The connection answer's acceptance value, and what a scripted refusal
// sends unless told otherwise.
inline constexpr uint32_t kAccepted = 11;
inline constexpr uint32_t kDefaultRefusal = 61;

enum Result : uint32_t {
    kOk = 0,
    kRegNotFound = 1,
    kRegBadAddress = 2,
    kRegInUse = 3,
    kUnregOther = 4,
    kUnregNotFound = 5,
    kTableNotFound = 6,
    kLocalAsNotFound = 7,
    kAddFailed = 8,
    kAddBadTable = 9,
    kAddBadIfl = 10,
    kAddBadPrefix = 12,
    kAddBadGateway = 13,
    kAddBadNextHop = 16,
    kAddEcmpLimit = 17,
    kAddMaskTooLong = 18,
    kDelNotFound = 20,
    kDelBadTable = 21,
    kDelMaskTooLong = 23,
    kDelCookieMismatch = 24,
    kLookupBadTable = 25,
    kLookupBadPrefix = 26,
    kLookupNotFound = 27,
    kLookupMaskTooLong = 29,
    kGwBadHandle = 30,
    kGwBadIfl = 31,
    kAliasDelRouteFailed = 39,
    kFlashBadTable = 43,
    kFlashBadOperation = 44,
    kFlashNotFound = 45,
    kFlashBadFilter = 46,
    kLastResult = 46,
};

// Family codes inside payloads, and the address field every payload uses.
inline constexpr uint8_t kFamilyInet = 1;
inline constexpr uint8_t kFamilyInet6 = 6;
inline constexpr size_t kAddrLen = 16;

inline constexpr size_t kIdentifyLen = 64;
inline constexpr size_t kRouteFixedLen = 40;
inline constexpr size_t kNextHopLen = 24;
inline constexpr size_t kMaxNextHops = 16;
inline constexpr size_t kRouteRecordLen = 44;  // lookup reply and flash notification
inline constexpr size_t kProtoRegFixedLen = 16;
inline constexpr size_t kNamedRequestLen = 8;  // table locate, local AS: before the name
inline constexpr size_t kChangeGatewayLen = 32;
inline constexpr size_t kFlashRegFixedLen = 20;
inline constexpr size_t kFlashFilterLen = 8;
inline constexpr size_t kAliasLen = 36;
inline constexpr size_t kBandwidthRecordLen = 8;
inline constexpr size_t kNeighbourRecordLen = 24;

// Change kinds of a flash notification.
inline constexpr uint32_t kFlashAdded = 1;
inline constexpr uint32_t kFlashChanged = 2;
inline constexpr uint32_t kFlashDeleted = 3;

// Flash registration operations (its 16-bit `b`).
inline constexpr uint16_t kFlashOpRegister = 1;
inline constexpr uint16_t kFlashOpDelete = 2;

}  // namespace tarn::temu::wire

#endif  // TARN_TARN_EMU_WIRE_H

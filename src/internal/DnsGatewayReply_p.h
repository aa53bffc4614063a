#ifndef VELANET_DNSGATEWAYREPLY_P_H
#define VELANET_DNSGATEWAYREPLY_P_H

// The body of a DNS gateway reply, one received piece at a time:
//
//   piece = *( item ";" ) [ rest ]
//   item  = *( any byte but ";" )     ; 7..15 bytes: a candidate address
//
// Items shorter than 7 or longer than 15 bytes are skipped; the rest after
// the last ";" is ignored; an item split between two pieces is lost.
//
// The candidate texts of one piece are appended to one accumulator that is
// never cleared, and the accumulated text is what gets parsed. So only the
// first candidate of a piece can parse, and a first candidate that is no
// address spoils every later one. Kept on purpose: gateways answer with the
// address first, and the stored results depend on this reading.
//
// Works on (pointer, length) and never reads past the length.

#include <QtGlobal>

#include <vector>

namespace velanet {

// Shortest and longest item taken as a candidate (the lengths of a dotted
// IPv4 text).
constexpr int KGatewayItemMinLen = 7;
constexpr int KGatewayItemMaxLen = 15;
constexpr char KGatewayItemEnd = ';';

// The addresses to store for one piece, in the order found: each time the
// accumulated text parses as a host address, its IPv4 value
// (QHostAddress::toIPv4Address). Empty for null data or len < 1.
[[nodiscard]] std::vector<quint32> ScanGatewayReply(const unsigned char* data, int len);

}  // namespace velanet

#endif

#ifndef VELANET_PROXYRULES_P_H
#define VELANET_PROXYRULES_P_H

// The text rules of the proxy setting, as functions over (pointer, length):
//
//   proxy-url  = [ "http://" ] [ userinfo "@" ] host [ ":" port ] [ "/" *anything ]
//   userinfo   = user [ ":" password ]      ; percent-encoded
//   host       = name | dotted-ipv4 | "[" ipv6 "]"
//   port       = 1*5DIGIT                   ; 1..65535, 1080 when absent
//
//   no-proxy   = entry *( "," entry )       ; blanks around entries ignored
//   entry      = "*" | [ "." ] name [ ":" port ] | ip [ ":" port ]
//              | "[" ipv6 "]" [ ":" port ] | ipv6
//
// A name entry matches the host itself and every host below it
// ("example.com" and ".example.com" both match example.com and
// www.example.com, not myexample.com), ignoring ASCII case; an address
// entry matches the same address only; an entry with a port matches that
// port only; "*" matches every host.

#include <QByteArray>

namespace velanet {

// The default port of a proxy URL without one.
constexpr int KDefaultProxyPort = 1080;

struct ProxyAddress
{
    QByteArray host;      // without brackets for an IPv6 literal
    int port = 0;
    bool hasCredentials = false;
    QByteArray user;      // percent-decoded
    QByteArray password;  // percent-decoded
};

// True, and out filled, when the len bytes are a proxy URL of the grammar
// above; false (out untouched) for anything else, other schemes included.
[[nodiscard]] bool ParseProxyUrl(const char* data, int len, ProxyAddress& out);

// "Basic " + base64 of user ":" password.
[[nodiscard]] QByteArray BasicCredentials(const QByteArray& user, const QByteArray& password);

// True when the host (without brackets) on port matches an entry of the
// no-proxy list; false for an empty list.
[[nodiscard]] bool NoProxyMatches(const char* list, int listLen, const char* host, int hostLen, int port);

}  // namespace velanet

#endif

#ifndef VELANET_PROXYTUNNEL_P_H
#define VELANET_PROXYTUNNEL_P_H

// The bytes of an HTTP proxy's tunnel (RFC 9110 section 9.3.6) and of the
// credentials line that a request through a proxy carries:
//
//   connect-request = "CONNECT " authority " HTTP/1.1" CRLF
//                     "Host: " authority CRLF
//                     [ "Proxy-Authorization: " credentials CRLF ]
//                     CRLF
//   authority       = host ":" port         ; an IPv6 host in brackets
//
//   connect-reply   = "HTTP/" 1*( DIGIT / "." ) SP 3DIGIT *( any but LF ) LF
//                     *( field-line LF ) LF  ; each LF may follow a CR
//
// A 1xx reply is interim: the final reply follows it. Only the status code
// of the reply is read; its fields and body are not.

#include <QByteArray>

namespace velanet {

// Results of ReadConnectReply besides a head length.
enum
{
    KConnectReplyIncomplete = -1,  // no complete head yet: call again with more bytes
    KConnectReplyMalformed = -2,   // the bytes are not an HTTP reply head
};

// The exact bytes of a CONNECT request to host:port (host without
// brackets; it gets them when it holds a ":"), with the credentials line
// when authorization is not empty ("Basic ...").
[[nodiscard]] QByteArray ConnectRequest(const char* host, int hostLen, int port, const QByteArray& authorization);

// Reads one reply head at the start of the len bytes: its length (blank
// line included; later bytes are not looked at) with status set to its
// code, or KConnectReplyIncomplete, or KConnectReplyMalformed.
[[nodiscard]] int ReadConnectReply(const unsigned char* data, int len, int& status);

// The request bytes with "Proxy-Authorization: " + authorization + CRLF
// after the request line: a new[] buffer (the caller frees it) and its
// length in outLen; null when the request has no complete request line.
[[nodiscard]] unsigned char* InsertProxyAuthorization(const unsigned char* request, int len,
                                                      const QByteArray& authorization, int& outLen);

}  // namespace velanet

#endif
